#ifndef SUPPORT_FULLCACHE_H
#define SUPPORT_FULLCACHE_H

#include "Mem/Mem_Configuration.h"
#include "Mem/Mem_MemPager.h"

#include <cstring>
#include <vector>

constexpr std::size_t kMB = 1 << 20;
constexpr unsigned kRegion = 10 * kMB;

/// `mb` of views that wait in a pager's cache.
class FullCache
{
public:
    explicit FullCache(unsigned mb, MEM_MemPager* pager = MEM_MemPager::GetHandle())
        : m_pager(pager), m_infos(mb * kMB / kRegion)
    {
        MEM_MemoryConfiguration::GetInstance()->SetCacheSize(2000);
        for (MEM_PagerInfo& info : m_infos) {
            m_pager->Allocate(kRegion, &info, 0);
            std::memset(info.Ptr(), 7, kRegion);
            info.Unmap();
        }
    }
    unsigned long long MB() const
    {
        Mem_Status status;
        m_pager->GetCurrentStatus(status);
        return status.total_cached / kMB;
    }
    bool Whole()
    {
        bool whole = true;
        for (MEM_PagerInfo& info : m_infos) {
            whole = info.Map() == 0 && static_cast<char*>(info.Ptr())[kRegion - 1] == 7 && whole;
            info.Unmap();
        }
        return whole;
    }

private:
    MEM_MemPager* m_pager;
    std::vector<MEM_PagerInfo> m_infos;
};

#endif
