#include "Mem/Mem_MemPager.h"

#include "Mem/Mem_Limits.h"
#include "Mem/Mem_MemInfo.h"
#include "Mem/Mem_Notices.h"
#include "Mem/Mem_PagerLog.h"
#include "Mem/Mem_PagerMapping.h"
#include "Mem/Mem_PagerRooms.h"
#include "Mem/Mem_PieceRecord.h"
#include "Mem/Mem_Prefetch.h"
#include "Mem/Mem_Refusal.h"
#include "Mem/Mem_Reports.h"
#include "Mem/Mem_Settings.h"
#include "Mem/Mem_ShmmHeap.h"
#include "NRVlog/Zor_Log.h"
#include "Zor/Zor_Buffer.h"

#include <cassert>
#include <memory>
#include <utility>

namespace
{
using Operation = Mem_Reason::Operation;
using Limit = Mem_Reason::Limit;
} // namespace

// Life ------------------------------------------------------------------------------------------

MEM_MemPager::MEM_MemPager() : MEM_MemPager(Memory_ShmmHeap::GetInstance()) {}

MEM_MemPager::MEM_MemPager(ShmmHeap* heap)
    : m_hits(std::make_unique<Mem_Hits>()),
      m_rooms(std::make_unique<Rooms>(this, *m_hits)),
      m_heap(heap),
      m_counts(m_rooms->counters.AreOn())
{
    MEM_MemoryConfiguration::GetInstance();
}

MEM_MemPager::~MEM_MemPager()
{
    WindowUnixGuard lock(&mutex);
    close_down();
}

void MEM_MemPager::close_down()
{
    ClearCache();
    m_rooms->blocks.Table().ForEach([](int, RegisteredBlock&) {
        ZOR_LOG("MEM_MemPager::~MEM_MemPager", 3,
                "Application is exiting (at least one block hasn't been freed yet)\n");
    });
}

/// @throws RWBoundsErr for a piece that is gone.
RegisteredBlock& MEM_MemPager::block_of(int id)
{
    if (RegisteredBlock* const block = m_rooms->blocks.Table().Find(id))
        return *block;
    RefuseFreedPiece();
    return m_rooms->blocks.At(id);
}

// Registration ----------------------------------------------------------------------------------

int MEM_MemPager::Allocate(unsigned int size, MEM_PagerInfo* info, int alignment)
{
    return Allocate(size, info, alignment, 0, 0);
}

int MEM_MemPager::Allocate(unsigned int size, MEM_PagerInfo* info, int alignment,
                           unsigned int always_mapped, unsigned int group_id)
{
    info->Release();
    if (size == 0) {
        ZOR_LOG("MEM_MemPager::Allocate", 3, "Allocate: Refused a request of 0 bytes\n");
        Refuse(Operation::Allocate, Limit::Request, "it is of 0 bytes");
        return -1;
    }
    const Mem_NoticesAtEnd notices;
    WindowUnixGuard lock(&mutex);
    if (m_ended)
        return RefuseAtTheEnd(Operation::Allocate);
    const Mem_Counter counter = m_rooms->counters.Get(Mem_PagerCounters::ALLOCATE_COUNTER_NAME);
    counter.Mark();
    MEM_MemInfo* const piece =
        allocate_piece(size, static_cast<unsigned int>(alignment), always_mapped, group_id);
    if (piece == nullptr || register_or_give_back(piece, info) != 0)
        return -1;
    counter.Close();
    check_invariants();
    return 0;
}

MEM_MemInfo* MEM_MemPager::ask_heap(unsigned int size, unsigned int alignment,
                                    unsigned int always_mapped, unsigned int group_id)
{
    BaseInfo* piece = nullptr;
    if (m_heap->AllocateFor(this, size, alignment, &piece, always_mapped, group_id) != 0)
        return nullptr;
    // The pager's heap hands out nothing else.
    return static_cast<MEM_MemInfo*>(piece);
}

MEM_MemInfo* MEM_MemPager::allocate_piece(unsigned int size, unsigned int alignment,
                                          unsigned int always_mapped, unsigned int group_id)
{
    if (MEM_MemInfo* const piece = ask_heap(size, alignment, always_mapped, group_id))
        return piece;
    Mem_Views& views = m_rooms->views;
    Mem_PagerLog::AllocatesAgainWithoutCache(views.HeldByClients(), views.TotalCached());
    ClearCache();
    MEM_MemInfo* const piece = ask_heap(size, alignment, always_mapped, group_id);
    if (piece == nullptr)
        report_refused_piece(size);
    else
        Mem_PagerLog::AllocatedWithoutCache();
    return piece;
}

void MEM_MemPager::report_refused_piece(unsigned int size)
{
    static constexpr char function[] = "MEM_MemPager::Allocate";
    Refuse(Operation::Allocate, RegionLimits, size);
    if (!RegionLimits.IsNews(function))
        return;
    Mem_PagerLog::PieceIsRefused(size);
    RegionLimits.Tell(function);
    PrintSharedMemoryStatus();
}

int MEM_MemPager::register_or_give_back(MEM_MemInfo* piece, MEM_PagerInfo* out)
{
    int result = -1;
    try {
        result = internal_register(*piece, out);
    } catch (...) {
        give_back(piece);
        throw;
    }
    if (result != 0) {
        ZOR_LOG("MEM_MemPager::Allocate", 7,
                "Allocate: Failed mapping the shared memory. Freeing the block..\n");
        RefuseWhole(Operation::Allocate, piece->Size());
        give_back(piece);
    }
    return result;
}

void MEM_MemPager::give_back(MEM_MemInfo* piece)
{
    if (m_heap->Free(piece) != 0)
        ZOR_LOG("MEM_MemPager::Allocate", 5,
                "Allocate: Failed freeing the block (memory might be leaked)\n");
}

void MEM_MemPager::StreamMemInfo(MEM_PagerInfo& info, Zor_oBuffer& out)
{
    WindowUnixGuard stripe(&info.stripe()); // another thread may map the piece meanwhile
    WindowUnixGuard lock(&mutex);
    if (m_ended)
        return;
    block_of(info.Block());
    out << *info.GetMemInfoPtr();
}

// The stripe keeps hits off the piece, also those of a client who should have waited for them.
//
// A block leaves the tables before its last piece goes back to the heap, since the heap destroys
// the owner then, and the tables must never name an owner that is gone.
int MEM_MemPager::Free(MEM_PagerInfo& info)
{
    WindowUnixGuard stripe(&info.stripe());
    if (info.m_state != nullptr)
        info.m_state->PrefetchForFree();
    WindowUnixGuard lock(&mutex);
    const int id = info.Block();
    MEM_MemInfo* const piece = info.GetMemInfoPtr();
    if (id < 0 || piece == nullptr || m_ended)
        return 0;
    RegisteredBlock& block = m_rooms->blocks.At(id);
    BaseMapInfo* const owner = block.owner;
    const bool local = owner->Local();
    if (local)
        piece->OwnerBlock()->PrefetchForFree(piece->GetChunk());
    RWCString name;
    const bool last = m_rooms->blocks.RemovePiece(block, piece->Size());
    if (last) {
        name = owner->Name();
        m_rooms->views.Forget(block);
        m_rooms->blocks.Forget(id, name);
    }
    if (local) {
        m_heap->Free(piece);
    } else {
        delete piece;
        if (last)
            m_rooms->foreign.Release(owner, name);
    }
    info.Reset();
    check_invariants();
    return 0;
}

// Mapping ---------------------------------------------------------------------------------------

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
        MakeSmallReady(*info.GetMemInfoPtr(), Platform::Mappings::Access::Write);
    return 0;
}

int MEM_MemPager::MapWithoutLocks(MEM_PagerInfo& info)
{
    bool is_anew = false;
    const int result = map_piece(info, is_anew);
    if (is_anew)
        MakeSmallReady(*info.GetMemInfoPtr(), Platform::Mappings::Access::Write);
    return result;
}

/// `is_anew` becomes whether a view was made for it.
int MEM_MemPager::map_piece(MEM_PagerInfo& info, bool& is_anew)
{
    if (info.Ptr() != nullptr)
        return 0;
    if (m_ended)
        return RefuseAtTheEnd(Operation::Map);
    RegisteredBlock& block = block_of(info.Block());
    const Mem_Counter counter = counter_of_map(block);
    counter.Mark();
    const unsigned views = block.views;
    if (private_map(block, true) == -1)
        return -1;
    is_anew = block.views != views;
    m_rooms->views.Hold(block);
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

/// The counter for a map of the block. A block that is mapped already costs nothing, and isn't
/// counted.
Mem_Counter MEM_MemPager::counter_of_map(const RegisteredBlock& block)
{
    const int stat = block.stat();
    if (stat == Mem_Holding::kMapped)
        return Mem_Counter(nullptr);
    return m_rooms->counters.Get(stat == Mem_Holding::kCached
                                     ? Mem_PagerCounters::MAP_FROM_CACHE_COUNTER_NAME
                                     : Mem_PagerCounters::MAP_FROM_SHARED_COUNTER_NAME);
}

/// Makes a view of the block if it has none. If that fails, and `try_clear`, the cache is given up
/// and the view is tried once more.
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
    static constexpr char function[] = "MEM_MemPager::private_map";
    Refuse(Operation::Map, ViewLimits, block.owner->Size());
    if (!ViewLimits.IsNews(function))
        return -1;
    Mem_PagerLog::MapIsRefused(block.owner->Size());
    ViewLimits.Tell(function);
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
        return RefuseAtTheEnd(Operation::Other);
    RegisteredBlock& block = block_of(info.Block());
    info.GetMemInfoPtr()->UpdatePtrByBase(nullptr);
    if (m_hits->LetGoUnlessLast(block))
        return 0; // other pieces still need the view
    keep_or_drop(block);
    check_invariants();
    return 0;
}

// The block stays held while older views are evicted, so that it can't be among them.
void MEM_MemPager::keep_or_drop(RegisteredBlock& block)
{
    Mem_Views& views = m_rooms->views;
    const Mem_Counter to_cache =
        m_rooms->counters.Get(Mem_PagerCounters::UNMAP_TO_CACHE_COUNTER_NAME);
    const Mem_Counter to_shared =
        m_rooms->counters.Get(Mem_PagerCounters::UNMAP_TO_SHARED_COUNTER_NAME);
    to_cache.Mark();
    const unsigned long long limit = CacheLimit();
    const unsigned long long mapped = views.TotalMapped();
    if (mapped > limit && !views.EvictAtLeast(block.owner->Size(), to_shared)) {
        views.Drop(block); // the older views are not large enough
        to_shared.Close();
    } else {
        m_hits->LetGoToCache(block);
        to_cache.Close();
    }
    if (mapped > limit)
        m_rooms->evictions.Evicted(mapped - views.TotalMapped(), limit);
}

// Cache and reclaim -----------------------------------------------------------------------------

int MEM_MemPager::Cache(MEM_PagerInfo& info)
{
    WindowUnixGuard lock(&mutex);
    if (m_ended)
        return RefuseAtTheEnd(Operation::Cache);
    const unsigned long long limit = CacheLimit();
    const unsigned long long mapped = m_rooms->views.TotalMapped();
    if (mapped > limit) {
        Mem_PagerLog::CachesNothingOverTheLimit(mapped, limit);
        Refuse(Operation::Cache, Limit::Setting, "the cache's limit is reached");
        return -1;
    }
    RegisteredBlock& block = block_of(info.Block());
    if (block.Holding().HasView())
        return 0;
    const Mem_Counter counter = m_rooms->counters.Get(Mem_PagerCounters::CACHE_COUNTER_NAME);
    counter.Mark();
    if (private_map(block, false) != 0) {
        ZOR_LOG("MEM_MemPager::Cache", 5,
                "Cache: Memory is low, failed to map memory to be cached.\n");
        Refuse(Operation::Cache, ViewLimits, block.owner->Size());
        return -1;
    }
    counter.Close();
    m_rooms->views.EnterCache(block);
    check_invariants();
    return 0;
}

unsigned long long MEM_MemPager::ClearCache()
{
    WindowUnixGuard lock(&mutex);
    if (m_ended)
        return 0;
    Mem_Views& views = m_rooms->views;
    const Mem_Counter clear = m_rooms->counters.Get(Mem_PagerCounters::CLEAR_CACHE_COUNTER_NAME);
    const Mem_Counter to_shared =
        m_rooms->counters.Get(Mem_PagerCounters::UNMAP_TO_SHARED_COUNTER_NAME);
    to_shared.Mark();
    clear.Mark();
    const unsigned long long old_mapped = views.TotalMapped();
    const unsigned long long old_cached = views.TotalCached();
    views.ClearCache(to_shared);
    clear.Close();
    Mem_PagerLog::CacheIsCleared(old_mapped, old_cached, views.TotalMapped());
    const unsigned long long freed = old_mapped - views.TotalMapped();
    s_clearings += freed != 0 ? 1 : 0;
    return freed;
}

void MEM_MemPager::ReduceWorkingSet()
{
    WindowUnixGuard lock(&mutex);
    m_rooms->views.Trim();
}

int MEM_MemPager::trim(MEM_PagerInfo& info)
{
    WindowUnixGuard lock(&mutex);
    if (m_ended)
        return RefuseAtTheEnd(Operation::Other);
    return Mem_Views::Trim(block_of(info.Block()), *info.GetMemInfoPtr());
}

// Diagnostics -----------------------------------------------------------------------------------

int MEM_MemPager::GetCurrentStatus(Mem_Status& status)
{
    Mem_HugeBytes* huge = nullptr; // which needs no lock
    {
        WindowUnixGuard lock(&mutex);
        m_rooms->blocks.Tell(status);
        status.total_cached = m_rooms->views.TotalCached();
        status.total_mapped = m_rooms->views.TotalMapped();
        huge = &m_rooms->huge;
    }
    status.total_huge = huge->Get([this] {
        WindowUnixGuard lock(&mutex);
        return m_rooms->views.Addresses();
    });
    return 0;
}

void MEM_MemPager::PrintDebugStatus()
{
    WindowUnixGuard lock(&mutex);
    PrintStatus(*m_heap, m_rooms->views.Mapped());
    LogBlocks(m_rooms->blocks.Table());
}

void MEM_MemPager::PrintSharedMemoryStatus()
{
    WindowUnixGuard lock(&mutex);
    ReportSharedMemory(*m_heap, m_rooms->views.Mapped());
}

void MEM_MemPager::check_invariants() const
{
#if defined(MEMPAGER_CHECK_INVARIANTS)
    assert(m_rooms->Broken() == nullptr);
#endif
}
