#include "Mem/Mem_MemPagerInfo.h"

#include "Mem/Mem_HitPath.h"
#include "Mem/Mem_MemInfo.h"
#include "Mem/Mem_MemPager.h"
#include "Mem/Mem_Notices.h"
#include "Mem/Mem_PieceRecord.h"
#include "Mem/Mem_Refusal.h"
#include "NRVlog/Zor_Log.h"
#include "Platform/Mappings.h"

#include <functional>
#include <memory>
#include <utility>

namespace
{
using By = Mem_PieceCounts::By;
} // namespace

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
    assign(std::make_unique<PagerInfoState>(info, mapped), blk_id, pager);
}

void MEM_PagerInfo::assign(std::unique_ptr<PagerInfoState> state, int blk_id, MEM_MemPager* pager)
{
    if (m_state != nullptr)
        ZOR_LOG("MEM_PagerInfo::Assign", 4,
                "MEM_PagerInfo::Assign: Assigned an existing MEM_PagerInfo! Probably memory "
                "leaked...\n");
    state->blk_id.store(blk_id, std::memory_order_relaxed);

    m_state = state.release();
    m_mutex_index = next_stripe();
    m_allocated_size = m_state->mem_info != nullptr ? m_state->mem_info->Size() : 0;
    set_map_count(m_state->map_count());
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
    m_state = other.m_state;
    m_mutex_index = m_state != nullptr ? other.m_mutex_index : 0;
    int mappings = m_state != nullptr ? m_state->counts.AddHandle(By::Anybody, map) : 0;
    if (mappings < 0) {
        WindowUnixGuard lock(&stripe());
        mappings = m_state->counts.AddHandle(By::StripeHolder, map);
    }
    set_map_count(mappings);
}

void MEM_PagerInfo::release()
{
    if (m_state == nullptr)
        return;
    const int mappings = map_count();
    set_map_count(0);
    if (!m_state->counts.RemoveHandle(mappings)) {
        WindowUnixGuard lock(&stripe());
        if (m_state->counts.RemoveAnyHandle(mappings) == 0)
            free_piece();
    }
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

// Always inline: this is most of a map that finds its view. Nobody but the holder of the stripe
// takes a piece that isn't mapped away from there, and its handles hold no mapping.
template <class MapBlock>
[[gnu::always_inline]] inline int MEM_PagerInfo::count_map(MapBlock map_block)
{
    if (m_state == nullptr)
        return RefuseEmptyHandle(Mem_Reason::Operation::Map);
    if (m_state->counts.AddMapping(By::StripeHolder)) {
        add_mapping();
        return 0;
    }
    const int result = map_block();
    if (result != 0)
        return result;
    set_map_count(1);
    m_state->counts.AddFirstMapping();
    return 0;
}

int MEM_PagerInfo::Map()
{
    if (m_state == nullptr)
        return RefuseEmptyHandle(Mem_Reason::Operation::Map);
    if (m_state->counts.AddMapping(By::Anybody)) {
        add_mapping();
        return 0;
    }
    WindowUnixGuard lock(&stripe());
    return count_map([this] { return m_pager->map_by_hit(*this) ? 0 : m_pager->Map(*this); });
}

int MEM_PagerInfo::MapWithoutLocks()
{
    // Whoever calls this holds the pager's lock, which the analysis can't see.
    return count_map(std::bind_front(&MEM_MemPager::MapWithoutLocks, m_pager, std::ref(*this)));
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

/// Takes one mapping out of the handle's own count. @return false if it holds none.
inline bool MEM_PagerInfo::take_mapping()
{
    int count = map_count();
    while (count > 0)
        if (m_map_count.compare_exchange_weak(count, count - 1, std::memory_order_relaxed))
            return true;
    return false;
}

/// Gives a mapping back that isn't the piece's last, without a lock. The handle's own count comes
/// first, so that two threads can't give the same mapping back. @return whether it did.
inline bool MEM_PagerInfo::unmap_nested()
{
    const Mem_PieceCounts::Word word = m_state->counts.Now();
    if (word.Mappings() <= 1 || !word.IsFreeTo(By::Anybody) || !take_mapping())
        return false;
    if (m_state->counts.TakeMapping())
        return true;
    add_mapping(); // the others' mappings have gone meanwhile, or a guard has come
    return false;
}

// The pager's part throws for a piece that was freed: the counts are as they were then. They fall
// before it, so that nobody counts on a mapping that is about to go.
template <class UnmapBlock>
[[gnu::always_inline]] inline int MEM_PagerInfo::count_unmap(UnmapBlock unmap_block)
{
    if (!take_mapping())
        return -1; // another thread was faster
    if (m_state->counts.TakeAnyMapping() != 0)
        return 0;
    try {
        return unmap_block();
    } catch (...) {
        m_state->counts.AddFirstMapping();
        add_mapping();
        throw;
    }
}

int MEM_PagerInfo::Unmap()
{
    if (!holds_mapping())
        return refuse_unmap("MEM_PagerInfo::Unmap");
    if (unmap_nested())
        return 0;
    const Mem_NoticesAtEnd notices;
    WindowUnixGuard lock(&stripe());
    return count_unmap([this] { return m_pager->unmap_by_hit(*this) ? 0 : m_pager->Unmap(*this); });
}

int MEM_PagerInfo::UnmapWithoutLocks()
{
    if (!holds_mapping())
        return refuse_unmap("MEM_PagerInfo::UnmapWithoutLocks");
    return count_unmap(std::bind_front(&MEM_MemPager::UnmapWithoutLocks, m_pager, std::ref(*this)));
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

    Mem_PieceCounts& counts = m_state->counts;
    Mem_PieceCounts::Word before = counts.Now();
    do {
        if (before.Mappings() == 0 && before.Handles() == 1) {
            free_piece();
            m_pager = nullptr;
            return MEM_RELEASED;
        }
        if (!force_detach)
            return before.Mappings() != 0 ? MEM_STILL_MAPPED : MEM_STILL_SHARED;
    } while (!counts.RemoveHandleFrom(before));
    const int left = before.Handles() - 1;
    detach(left);
    if (before.Mappings() != 0)
        return MEM_DETACHED_MAPPED;
    return left == 1 && last_counts_as_released ? MEM_RELEASED : MEM_DETACHED_SHARED;
}

void MEM_PagerInfo::detach(int left)
{
    m_state = nullptr;
    m_pager = nullptr;
    set_map_count(0);
    ZOR_LOG("MEM_PagerInfo::ReleaseIfUnmapped", 4, "ReleaseIfUnmapped: RefCount=<%d>\n", left);
}
