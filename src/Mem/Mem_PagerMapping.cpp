#include "Mem/Mem_MemPager.h"

#include "Mem/Mem_Limits.h"
#include "Mem/Mem_MemInfo.h"
#include "Mem/Mem_PagerLog.h"
#include "Mem/Mem_PagerMapping.h"
#include "Mem/Mem_PagerRooms.h"
#include "Mem/Mem_Settings.h"

// How a handle's Map() and Unmap() are served. The rest of the pager is in Mem_MemPager.cpp.

// The pages are found without the pager's lock: it can take long, and the handle keeps the view.
int MEM_MemPager::Map(MEM_PagerInfo& info)
{
    bool is_anew = false;
    {
        WindowUnixGuard lock(&mutex);
        if (map_piece(info, is_anew) != 0)
            return -1;
    }
    if (is_anew)
        MakeSmallReady(*info.GetMemInfoPtr(), Platform::Mappings::Access::Read);
    return 0;
}

int MEM_MemPager::MapWithoutLocks(MEM_PagerInfo& info)
{
    bool is_anew = false;
    const int result = map_piece(info, is_anew);
    if (is_anew)
        MakeSmallReady(*info.GetMemInfoPtr(), Platform::Mappings::Access::Read);
    return result;
}

/// `is_anew` becomes whether a view was made for it.
int MEM_MemPager::map_piece(MEM_PagerInfo& info, bool& is_anew)
{
    if (info.Ptr() != nullptr)
        return 0;
    if (m_ended)
        return -1;
    const int id = info.Block();
    RegisteredBlock& block = m_rooms->blocks.At(id);
    const Mem_Counter counter = counter_of_map(block);
    counter.Mark();
    const unsigned views = block.views;
    if (private_map(block, true) == -1)
        return -1;
    is_anew = block.views != views;
    m_rooms->views.Hold(id, block);
    info.GetMemInfoPtr()->UpdatePtrByBase(block.owner->Ptr());
    counter.Close();
    check_invariants();
    return 0;
}

/// The same as long as the block's view is: one that is made anew gets another number.
unsigned int MEM_MemPager::view_number(const MEM_PagerInfo& info)
{
    WindowUnixGuard lock(&mutex);
    return m_rooms->blocks.At(info.Block()).views;
}

/// What a map of the block counts as: nothing where others hold it mapped.
Mem_Counter MEM_MemPager::counter_of_map(const RegisteredBlock& block)
{
    if (block.stat == RegisteredBlock::kMapped)
        return Mem_Counter(nullptr);
    return m_rooms->counters.Get(block.stat == RegisteredBlock::kCached
                                     ? Mem_PagerCounters::MAP_FROM_CACHE_COUNTER_NAME
                                     : Mem_PagerCounters::MAP_FROM_SHARED_COUNTER_NAME);
}

/// Sees to it that the block has a view, for which the cache may be given up.
int MEM_MemPager::private_map(RegisteredBlock& block, bool try_clear)
{
    Mem_Views& views = m_rooms->views;
    if (Mem_Views::HasView(block))
        return 0;
    if (views.Open(block) == -1) {
        if (!try_clear) {
            Mem_PagerLog::MapsNothingAhead(views.TotalCached());
            return -1;
        }
        if (map_after_clearing(block) != 0)
            return -1;
    }
    ViewLimits.Ended();
    return 0;
}

int MEM_MemPager::map_after_clearing(RegisteredBlock& block)
{
    Mem_Views& views = m_rooms->views;
    Mem_PagerLog::MapsAgainWithoutCache(block.owner->Size(), views.HeldByClients(),
                                        views.TotalCached());
    ClearCache();
    const unsigned long long held = views.HeldByClients();
    if (views.Open(block) != 0)
        return report_refused_map(block);
    Mem_PagerLog::MappedWithoutCache(held);
    return 0;
}

int MEM_MemPager::report_refused_map(const RegisteredBlock& block)
{
    Mem_PagerLog::MapIsRefused(block.owner->Size());
    ViewLimits.Tell("MEM_MemPager::private_map");
    print_virtual_memory_status();
    return -1;
}

int MEM_MemPager::Unmap(MEM_PagerInfo& info)
{
    WindowUnixGuard lock(&mutex);
    return UnmapWithoutLocks(info);
}

int MEM_MemPager::UnmapWithoutLocks(MEM_PagerInfo& info)
{
    if (m_ended)
        return -1;
    const int id = info.Block();
    RegisteredBlock& block = m_rooms->blocks.At(id);
    info.GetMemInfoPtr()->UpdatePtrByBase(nullptr);
    if (!m_rooms->views.LetGo(block))
        return 0; // other pieces still need the view
    keep_or_drop(id, block);
    check_invariants();
    return 0;
}

void MEM_MemPager::keep_or_drop(int id, RegisteredBlock& block)
{
    Mem_Views& views = m_rooms->views;
    const Mem_Counter to_cache =
        m_rooms->counters.Get(Mem_PagerCounters::UNMAP_TO_CACHE_COUNTER_NAME);
    const Mem_Counter to_shared =
        m_rooms->counters.Get(Mem_PagerCounters::UNMAP_TO_SHARED_COUNTER_NAME);
    to_cache.Mark();
    if (views.TotalMapped() > CacheLimit() && !views.EvictAtLeast(block.owner->Size(), to_shared)) {
        views.Drop(block); // nothing older could make room
        to_shared.Close();
    } else {
        views.EnterCache(id, block);
        to_cache.Close();
    }
}
