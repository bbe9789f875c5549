#include "Mem/Mem_MemPager.h"

#include "Mem/Mem_Limits.h"
#include "Mem/Mem_MemInfo.h"
#include "Mem/Mem_PagerLog.h"
#include "Mem/Mem_PagerMapping.h"
#include "Mem/Mem_PagerRooms.h"
#include "Mem/Mem_Reports.h"
#include "Mem/Mem_Settings.h"
#include "Mem/Mem_ShmmHeap.h"
#include "NRVlog/Zor_Log.h"
#include "Platform/Mappings.h"
#include "Zor/Zor_Buffer.h"

#include <cassert>
#include <memory>
#include <utility>

// Life ------------------------------------------------------------------------------------------

MEM_MemPager::MEM_MemPager() : MEM_MemPager(Memory_ShmmHeap::GetInstance()) {}

MEM_MemPager::MEM_MemPager(ShmmHeap* heap) : m_rooms(std::make_unique<Rooms>(this)), m_heap(heap)
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
        return -1;
    }
    WindowUnixGuard lock(&mutex);
    if (m_ended)
        return -1;
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
    const Mem_Views& views = m_rooms->views;
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
    Mem_PagerLog::PieceIsRefused(size);
    RegionLimits.Tell("MEM_MemPager::Allocate");
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

int MEM_MemPager::internal_register(MEM_MemInfo& info, MEM_PagerInfo* out)
{
    if (info.Owner() == nullptr || !info.Local())
        return register_foreign(info, out);
    auto state = std::make_unique<PagerInfoState>();
    const int id = register_local(info);
    if (id < 0)
        return -1;
    out->assign(std::move(state), id, this, &info, true);
    return 0;
}

int MEM_MemPager::register_local(MEM_MemInfo& info)
{
    if (info.m_registered) {
        ZOR_LOG("MEM_MemPager::Register", 3, "Register: Refused a piece that has its handle\n");
        return -1;
    }
    const int known = m_rooms->blocks.IdOf(*info.Owner());
    const int id = known >= 0 ? register_on_block(known, info) : register_new_block(info);
    info.m_registered = id >= 0;
    return id;
}

int MEM_MemPager::register_on_block(int id, MEM_MemInfo& info)
{
    RegisteredBlock& block = m_rooms->blocks.At(id);
    const unsigned views = block.views;
    if (private_map(block, true) != 0) {
        ZOR_LOG("MEM_MemPager::internal_register", 5,
                "MemPager::Register failed to map block %d!\n", id);
        return -1;
    }
    m_rooms->views.Hold(id, block);
    m_rooms->blocks.AddPiece(block, info.Size());
    info.UpdatePtrByBase(block.owner->Ptr());
    if (block.views != views)
        MakeSmallReady(info, Platform::Mappings::Access::First);
    return id;
}

int MEM_MemPager::register_new_block(MEM_MemInfo& info)
{
    const RWCString name = info.Owner()->Name();
    if (m_rooms->blocks.IdOf(name) >= 0) {
        // Names can be foreseen, and so forged; a piece on the foreign view couldn't be written to.
        ZOR_LOG("MEM_MemPager::Register", 3,
                "Register: Refused a new region: a descriptor from outside bears its name\n");
        return -1;
    }
    auto block = std::make_unique<RegisteredBlock>(info.Owner());
    Mem_Blocks::Next next(m_rooms->blocks, name);
    Mem_Views::Place place(m_rooms->views, next.Id());
    if (private_map(*block, true) != 0) {
        ZOR_LOG("MEM_MemPager::internal_register", 5,
                "MemPager::Register failed to map a new block\n");
        return -1;
    }
    m_rooms->views.Hold(next.Id(), *block);
    info.UpdatePtrByBase(block->owner->Ptr());
    MakeSmallReady(info, Platform::Mappings::Access::First);
    place.Keep();
    return next.Use(std::move(block), info.Size());
}

MEM_PagerInfo MEM_MemPager::Register(MEM_MemInfo& info)
{
    MEM_PagerInfo handle;
    {
        WindowUnixGuard lock(&mutex);
        if (m_ended)
            return handle;
        internal_register(info, &handle);
        check_invariants();
    }
    return handle; // copying or destroying it takes a stripe, which comes before the mutex
}

bool MEM_MemPager::made_here(MEM_MemInfo& info) const
{
    return has_local_block(info.GetInfoName()) || has_local_block(info.GetMappingName()) ||
           IsMappingOfOwnFile(info.GetMappingName());
}

int MEM_MemPager::register_foreign(MEM_MemInfo& info, MEM_PagerInfo* out)
{
    const char* fault = FaultOfDescriptor(info);
    if (fault == nullptr && made_here(info))
        fault = "this process made the memory";
    if (fault != nullptr) {
        ZOR_LOG("MEM_MemPager::Register", 3, "Register: Refused a descriptor: %s\n", fault);
        return -1;
    }
    auto state = std::make_unique<PagerInfoState>();
    auto piece = std::make_unique<MEM_MemInfo>(info);
    const int id = register_foreign_piece(info, *piece);
    if (id < 0)
        return -1;
    out->assign(std::move(state), id, this, piece.release(), false);
    return 0;
}

int MEM_MemPager::register_foreign_piece(MEM_MemInfo& info, MEM_MemInfo& piece)
{
    const int id = m_rooms->blocks.IdOf(info.GetInfoName());
    if (id < 0)
        return register_foreign_block(info, piece);
    RegisteredBlock& block = m_rooms->blocks.At(id);
    if (!LiesIn(piece, *block.owner)) {
        ZOR_LOG("MEM_MemPager::Register", 3,
                "Register: Refused a descriptor: the piece lies outside its region\n");
        return -1;
    }
    piece.SetOwner(block.owner);
    m_rooms->blocks.AddPiece(block, piece.Size());
    return id;
}

// A foreign block isn't mapped until a client maps a piece of it.
int MEM_MemPager::register_foreign_block(MEM_MemInfo& info, MEM_MemInfo& piece)
{
    Mem_ForeignOwners::Fresh owner(m_rooms->foreign, info);
    auto block = std::make_unique<RegisteredBlock>(owner.Get());
    Mem_Blocks::Next next(m_rooms->blocks, info.GetInfoName());
    Mem_Views::Place place(m_rooms->views, next.Id());
    piece.SetOwner(owner.Get());
    owner.Keep();
    place.Keep();
    return next.Use(std::move(block), piece.Size());
}

void MEM_MemPager::StreamMemInfo(MEM_PagerInfo& info, Zor_oBuffer& out)
{
    WindowUnixGuard lock(&mutex); // another thread may map the piece meanwhile
    if (m_ended)
        return;
    m_rooms->blocks.At(info.Block()); // throws for a piece that is gone
    out << *info.GetMemInfoPtr();
}

// The heap destroys the owner with the last piece, so the block leaves the tables before: whatever
// comes in between, they are whole.
int MEM_MemPager::Free(MEM_PagerInfo& info)
{
    WindowUnixGuard lock(&mutex);
    const int id = info.Block();
    MEM_MemInfo* const piece = info.GetMemInfoPtr();
    if (id < 0 || piece == nullptr || m_ended)
        return 0;
    RegisteredBlock& block = m_rooms->blocks.At(id);
    BaseMapInfo* const owner = block.owner;
    const bool local = owner->Local();
    RWCString name;
    const bool last = m_rooms->blocks.RemovePiece(block, piece->Size());
    if (last) {
        name = owner->Name();
        m_rooms->views.Forget(id, block);
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

// Cache and reclaim -----------------------------------------------------------------------------

int MEM_MemPager::Cache(MEM_PagerInfo& info)
{
    WindowUnixGuard lock(&mutex);
    if (m_ended)
        return -1;
    const unsigned long long limit = CacheLimit();
    const unsigned long long mapped = m_rooms->views.TotalMapped();
    if (mapped > limit) {
        Mem_PagerLog::CachesNothingOverTheLimit(mapped, limit);
        return -1;
    }
    const int id = info.Block();
    RegisteredBlock& block = m_rooms->blocks.At(id);
    if (block.stat != RegisteredBlock::kUnmapped)
        return 0;
    const Mem_Counter counter = m_rooms->counters.Get(Mem_PagerCounters::CACHE_COUNTER_NAME);
    counter.Mark();
    if (private_map(block, false) != 0) {
        ZOR_LOG("MEM_MemPager::Cache", 5,
                "Cache: Memory is low, failed to map memory to be cached.\n");
        return -1;
    }
    counter.Close();
    m_rooms->views.EnterCache(id, block);
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

// Diagnostics -----------------------------------------------------------------------------------

int MEM_MemPager::GetCurrentStatus(Mem_Status& status)
{
    WindowUnixGuard lock(&mutex);
    m_rooms->blocks.Tell(status);
    status.total_cached = m_rooms->views.TotalCached();
    status.total_mapped = m_rooms->views.TotalMapped();
    status.total_huge = m_rooms->views.HugeBytes();
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
