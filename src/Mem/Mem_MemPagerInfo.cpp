#include "Mem/Mem_MemPagerInfo.h"

#include "Mem/Mem_HitPath.h"
#include "Mem/Mem_MemInfo.h"
#include "Mem/Mem_MemPager.h"
#include "Mem/Mem_Notices.h"
#include "Mem/Mem_Refusal.h"
#include "NRVlog/Zor_Log.h"
#include "Platform/Mappings.h"

#include <memory>
#include <utility>

WindowUnixMutex MEM_PagerInfo::mutex[MEM_PagerInfo::kStripes];
std::atomic<unsigned int> MEM_PagerInfo::m_MutexCounter = 0;

MEM_PagerInfo::MEM_PagerInfo(MEM_MemPager* pager) : m_pager(pager) {}

MEM_PagerInfo::MEM_PagerInfo(const MEM_PagerInfo* other, MEM_MemPager* pager) : m_pager(pager)
{
    if (other != nullptr)
        copy(*other, false);
}

MEM_PagerInfo::MEM_PagerInfo(int blk_id, MEM_MemPager* pager, MEM_MemInfo* info, bool mapped)
{
    Assign(blk_id, pager, info, mapped);
}

MEM_PagerInfo::MEM_PagerInfo(const MEM_PagerInfo& other, bool)
{
    copy(other, true);
}

// NOLINTNEXTLINE(bugprone-unhandled-self-assignment): equal states are left alone
MEM_PagerInfo& MEM_PagerInfo::operator=(const MEM_PagerInfo& other)
{
    if (m_state != other.m_state) {
        release();
        copy(other, true);
    }
    return *this;
}

MEM_PagerInfo::MEM_PagerInfo(MEM_PagerInfo&& other) noexcept
{
    take(other);
}

MEM_PagerInfo& MEM_PagerInfo::operator=(MEM_PagerInfo&& other) noexcept
{
    if (m_state != other.m_state) {
        release();
        take(other);
    }
    return *this;
}

/// The piece's counts stay: it has as many handles and mappings as before.
void MEM_PagerInfo::take(MEM_PagerInfo& other) noexcept
{
    m_state = std::exchange(other.m_state, nullptr);
    m_mutex_index = other.m_mutex_index;
    set_map_count(other.map_count());
    other.set_map_count(0);
    m_allocated_size = other.m_allocated_size;
    m_pager = std::exchange(other.m_pager, nullptr);
}

void MEM_PagerInfo::GetUnmappedInfo(const MEM_PagerInfo& other)
{
    if (m_state != other.m_state) {
        release();
        copy(other, false);
    }
}

MEM_PagerInfo::~MEM_PagerInfo()
{
    release();
}

void MEM_PagerInfo::Assign(int blk_id, MEM_MemPager* pager, MEM_MemInfo* info, bool mapped)
{
    assign(std::make_unique<PagerInfoState>(), blk_id, pager, info, mapped);
}

void MEM_PagerInfo::assign(std::unique_ptr<PagerInfoState> state, int blk_id, MEM_MemPager* pager,
                           MEM_MemInfo* info, bool mapped)
{
    if (m_state != nullptr)
        ZOR_LOG("MEM_PagerInfo::Assign", 4,
                "MEM_PagerInfo::Assign: Assigned an existing MEM_PagerInfo! Probably memory "
                "leaked...\n");
    state->ref_count = 1;
    state->mem_info = info;
    state->map_count = mapped ? 1 : 0;
    state->blk_id.store(blk_id, std::memory_order_relaxed);

    m_state = state.release();
    m_mutex_index = next_stripe();
    m_allocated_size = info != nullptr ? info->Size() : 0;
    set_map_count(mapped ? 1 : 0);
    m_pager = pager;
}

// Read and written in two steps, which is faster than one atomic step. Two threads that meet here
// get the same stripe, and may: stripes are shared anyway.
int MEM_PagerInfo::next_stripe()
{
    const unsigned int stripe = m_MutexCounter.load(std::memory_order_relaxed);
    m_MutexCounter.store((stripe + 1) % kStripes, std::memory_order_relaxed);
    return static_cast<int>(stripe);
}

int MEM_PagerInfo::Block() const
{
    return m_state != nullptr ? m_state->blk_id.load(std::memory_order_relaxed) : -1;
}

bool MEM_PagerInfo::holds_mapping() const
{
    return m_state != nullptr && map_count() > 0;
}

void* MEM_PagerInfo::Ptr() const
{
    return holds_mapping() ? m_state->mem_info->Ptr() : nullptr;
}

unsigned long long MEM_PagerInfo::Size() const
{
    return holds_mapping() ? m_state->mem_info->Size() : 0;
}

unsigned int MEM_PagerInfo::Offset() const
{
    return holds_mapping() ? m_state->mem_info->Offset() : 0;
}

void* MEM_PagerInfo::GetHandle() const
{
    return holds_mapping() ? m_state->mem_info->Handle() : nullptr;
}

unsigned int MEM_PagerInfo::GetHandleOffset() const
{
    return holds_mapping() ? m_state->mem_info->HandleOffset() : 0;
}

MEM_MemInfo* MEM_PagerInfo::GetMemInfoPtr() const
{
    return m_state != nullptr ? m_state->mem_info : nullptr;
}

void MEM_PagerInfo::copy(const MEM_PagerInfo& other, bool map)
{
    m_allocated_size = other.m_allocated_size;
    m_pager = other.m_pager;
    m_mutex_index = other.m_mutex_index;
    m_state = nullptr;
    set_map_count(0);

    if (other.m_state == nullptr) {
        m_mutex_index = 0;
        return;
    }
    WindowUnixGuard lock(&other.stripe());
    if (other.m_state == nullptr)
        return;
    m_state = other.m_state;
    ++m_state->ref_count;
    if (map && m_state->map_count > 0) {
        ++m_state->map_count;
        set_map_count(1);
    }
}

void MEM_PagerInfo::release()
{
    if (m_state == nullptr)
        return;
    WindowUnixGuard lock(&stripe());
    if (m_state == nullptr)
        return;
    m_state->map_count -= map_count();
    set_map_count(0);
    if (--m_state->ref_count == 0)
        free_piece();
    m_state = nullptr;
}

void MEM_PagerInfo::free_piece()
{
    // A destructor comes by here, so nothing may be thrown, not even for a handle that a client has
    // made of the id of no block.
    try {
        if (m_pager != nullptr)
            m_pager->Free(*this);
    } catch (const RWBoundsErr&) {
        ZOR_LOG("MEM_PagerInfo::Release", 3, "Release: There is no block %d to free a piece of\n",
                Block());
    }
    delete m_state;
    m_state = nullptr;
}

void MEM_PagerInfo::Release()
{
    release();
    m_pager = nullptr;
    set_map_count(0);
}

void MEM_PagerInfo::Reset()
{
    SetBlkId(-1);
}

void MEM_PagerInfo::SetBlkId(int blk_id)
{
    if (m_state == nullptr)
        return;
    m_state->blk_id.store(blk_id, std::memory_order_relaxed);
    m_state->block = nullptr;
}

// Always inline: this is most of a map that finds its view.
template <class MapBlock>
[[gnu::always_inline]] inline int MEM_PagerInfo::count_map(MapBlock map_block)
{
    if (m_state == nullptr)
        return RefuseEmptyHandle(Mem_Reason::Operation::Map);
    if (m_state->map_count == 0) {
        const int result = map_block();
        if (result != 0)
            return result;
    }
    ++m_state->map_count;
    set_map_count(map_count() + 1);
    return 0;
}

int MEM_PagerInfo::Map()
{
    if (m_state == nullptr)
        return RefuseEmptyHandle(Mem_Reason::Operation::Map);
    WindowUnixGuard lock(&stripe());
    return count_map([this] { return m_pager->map_by_hit(*this) ? 0 : m_pager->Map(*this); });
}

int MEM_PagerInfo::MapWithoutLocks()
{
    return count_map([this] { return m_pager->MapWithoutLocks(*this); });
}

/// For a handle that holds no mapping.
[[gnu::cold]] int MEM_PagerInfo::refuse_unmap(const char* function) const
{
    if (m_state == nullptr) {
        ZOR_LOG(function, 3, "Unmap: Tried to unmap an invalid PagerInfo!\n");
        return RefuseEmptyHandle(Mem_Reason::Operation::Other);
    }
    ZOR_LOG(function, 6, "Unmap: Tried to unmap an already unmapped PagerInfo!\n");
    Refuse(Mem_Reason::Operation::Other, Mem_Reason::Limit::Request, "it holds no mapping");
    return -1;
}

// The pager's part throws for a piece that was freed, so it comes before the counts.
template <class UnmapBlock>
[[gnu::always_inline]] inline int MEM_PagerInfo::count_unmap(UnmapBlock unmap_block)
{
    const int result = m_state->map_count == 1 ? unmap_block() : 0;
    --m_state->map_count;
    set_map_count(map_count() - 1);
    return result;
}

int MEM_PagerInfo::Unmap()
{
    if (!holds_mapping())
        return refuse_unmap("MEM_PagerInfo::Unmap");
    const Mem_NoticesAtEnd notices;
    WindowUnixGuard lock(&stripe());
    if (!holds_mapping()) // another thread was faster
        return -1;
    return count_unmap([this] { return m_pager->unmap_by_hit(*this) ? 0 : m_pager->Unmap(*this); });
}

int MEM_PagerInfo::UnmapWithoutLocks()
{
    if (!holds_mapping())
        return refuse_unmap("MEM_PagerInfo::UnmapWithoutLocks");
    return count_unmap([this] { return m_pager->UnmapWithoutLocks(*this); });
}

int MEM_PagerInfo::Cache()
{
    if (m_state == nullptr)
        return RefuseEmptyHandle(Mem_Reason::Operation::Cache);
    WindowUnixGuard lock(&stripe());
    return m_state != nullptr ? m_pager->Cache(*this) : -1;
}

int MEM_PagerInfo::ReduceWorkingSet()
{
    if (m_state == nullptr)
        return RefuseEmptyHandle(Mem_Reason::Operation::Other);
    WindowUnixGuard lock(&stripe());
    return m_state != nullptr ? m_pager->trim(*this) : -1;
}

int MEM_PagerInfo::Prefetch(unsigned long long offset, unsigned long long size,
                            MEM_ACCESS access) const
{
    using Access = Platform::Mappings::Access;
    const unsigned long long all = Size();
    if (!holds_mapping() || offset > all || size > all - offset ||
        (access == MEM_TO_WRITE && !m_state->mem_info->Local()))
        return -1;
    return Platform::Mappings::Get().Prefetch(static_cast<char*>(Ptr()) + offset, size,
                                              access == MEM_TO_WRITE ? Access::Write : Access::Read)
               ? 0
               : -1;
}

MEM_RESPONSE MEM_PagerInfo::ReleaseIfUnmapped(bool force_detach, bool last_counts_as_released)
{
    if (m_state == nullptr)
        return MEM_INVALID;
    WindowUnixGuard lock(&stripe());
    if (m_state == nullptr)
        return MEM_INVALID;
    if (map_count() != 0)
        return MEM_STILL_MAPPED;

    const bool mapped = m_state->map_count != 0;
    if (!mapped && m_state->ref_count == 1) {
        free_piece();
        m_pager = nullptr;
        return MEM_RELEASED;
    }
    if (!force_detach)
        return mapped ? MEM_STILL_MAPPED : MEM_STILL_SHARED;
    const int left = detach();
    if (mapped)
        return MEM_DETACHED_MAPPED;
    return left == 1 && last_counts_as_released ? MEM_RELEASED : MEM_DETACHED_SHARED;
}

int MEM_PagerInfo::detach()
{
    const int left = --m_state->ref_count;
    m_state = nullptr;
    m_pager = nullptr;
    set_map_count(0);
    ZOR_LOG("MEM_PagerInfo::ReleaseIfUnmapped", 4, "ReleaseIfUnmapped: RefCount=<%d>\n", left);
    return left;
}
