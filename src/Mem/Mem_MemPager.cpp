#include "Mem/Mem_MemPager.h"

#include "Mem/Mem_Configuration.h"
#include "Mem/Mem_DumpFile.h"
#include "Mem/Mem_LastWords.h"
#include "Mem/Mem_Limits.h"
#include "Mem/Mem_MemInfo.h"
#include "Mem/Mem_ShmmHeap_Windows.h"
#include "Mem/Mem_Units.h"
#include "NRVlog/Zor_Log.h"
#include "Platform/Platform.h"
#include "Zor/Zor_Buffer.h"
#include "Zor/Zor_PerformanceCounters.h"
#include "Zor/Zor_System.h"

#include <algorithm>
#include <bitset>
#include <cassert>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <limits>
#include <locale>
#include <memory>
#include <new>
#include <utility>

namespace
{
constexpr std::size_t kNameBuckets = 1024;
constexpr int kCountersCode = 5830000;
constexpr int kCountersLevel = 7;
constexpr std::chrono::seconds kLongestWaitInHandler(1);
constexpr std::chrono::seconds kLongestWaitAtTheEnd(1);

void mark(Zor_PerformanceCounterData* counter)
{
    if (counter != nullptr)
        counter->Mark();
}

void close(Zor_PerformanceCounterData* counter)
{
    if (counter != nullptr)
        counter->End(-999, -1.0, nullptr);
}

bool piece_reaches_past(MEM_MemInfo& piece, BaseMapInfo& owner)
{
    return std::uint64_t{piece.Offset()} + piece.Size() > owner.Size();
}

/// Reads a setting where nothing may fail. The settings are made anew after a host took them away,
/// and where there is no memory for that, there is none to keep either: 0.
template <class Setting>
unsigned long long setting_or_none(Setting setting) noexcept
{
    try {
        return (MEM_MemoryConfiguration::GetInstance()->*setting)();
    } catch (...) {
        return 0;
    }
}

unsigned long long cache_limit() noexcept
{
    return setting_or_none(&MEM_MemoryConfiguration::HeapCacheInBytes);
}

/// Which pagers a failed allocation clears: 2 the general one, 1 the second one, 3 both.
int pagers_to_clear()
{
    static const char* const text = std::getenv("VORTELIX_NEW_HANDLER");
    return text != nullptr ? std::atoi(text) : 3;
}
} // namespace

WindowUnixMutex MEM_MemPager::mutex;
WindowUnixMutex MEM_MemPager::mutex_vec;
MEM_MemPager::ProcessSlot MEM_MemPager::s_general;
MEM_MemPager::ProcessSlot MEM_MemPager::s_second;
std::atomic<bool> MEM_MemPager::s_single_handle = false;
std::atomic<std::uint64_t> MEM_MemPager::s_clearings = 0;
bool MEM_MemPager::s_new_handler_handled = false;

const RWCString MEM_MemPager::ALLOCATE_COUNTER_NAME("MEM_Allocate");
const RWCString MEM_MemPager::CACHE_COUNTER_NAME("MEM_Cache");
const RWCString MEM_MemPager::CLEAR_CACHE_COUNTER_NAME("MEM_ClearCache");
const RWCString MEM_MemPager::MAP_FROM_CACHE_COUNTER_NAME("MEM_MapFromCache");
const RWCString MEM_MemPager::MAP_FROM_SHARED_COUNTER_NAME("MEM_MapFromSharedMem");
const RWCString MEM_MemPager::UNMAP_TO_CACHE_COUNTER_NAME("MEM_UnmapToCache");
const RWCString MEM_MemPager::UNMAP_TO_SHARED_COUNTER_NAME("MEM_UnmapToSharedMem");

// Life ------------------------------------------------------------------------------------------

/// A pager that serves the process until its end. The object itself is never destroyed: threads
/// that still run, and destructors that come later, find it closed.
struct Mem_ProcessPager {
    Mem_ProcessPager() : pager(*new MEM_MemPager) {}
    ~Mem_ProcessPager() { pager.end(); }
    Mem_ProcessPager(const Mem_ProcessPager&) = delete;
    Mem_ProcessPager& operator=(const Mem_ProcessPager&) = delete;

    MEM_MemPager& pager;
};

MEM_MemPager* MEM_MemPager::GetHandle()
{
    if (MEM_MemPager* const pager = s_general.pager.load(std::memory_order_acquire))
        return pager;
    WindowUnixGuard lock(&mutex);
    static Mem_ProcessPager general;
    return publish(general.pager, s_general);
}

MEM_MemPager* MEM_MemPager::GetHandleForMP()
{
    if (s_single_handle)
        return GetHandle();
    if (MEM_MemPager* const pager = s_second.pager.load(std::memory_order_acquire))
        return pager;
    WindowUnixGuard lock(&mutex);
    static Mem_ProcessPager second;
    return publish(second.pager, s_second);
}

void MEM_MemPager::SetSingleHandleInMemPager()
{
    s_single_handle = true;
}

MEM_MemPager* MEM_MemPager::publish(MEM_MemPager& pager, ProcessSlot& slot)
{
    if (!s_new_handler_handled) {
        if (!guard_forks())
            ZOR_LOG("MEM_MemPager::GetHandle", 3,
                    "Couldn't guard the locks over a fork: a child may find them held\n");
        set_new_memory_handler();
    }
    slot.pager.store(&pager, std::memory_order_release);
    return &pager;
}

/// The locks that the forking thread could take. One that another thread holds, while that thread
/// waits for one of ours, is made anew in the child, where that thread isn't.
struct MEM_MemPager::ForkLocks {
    bool vec = false;
    std::bitset<MEM_PagerInfo::kStripes> stripes;
};
MEM_MemPager::ForkLocks MEM_MemPager::s_fork_locks;

namespace
{
/// In order, waiting is safe; against the order, a lock is only tried.
FIBREX_NO_THREAD_SAFETY_ANALYSIS bool take(WindowUnixMutex& mutex, bool against_order)
{
    if (against_order)
        return mutex.TryCatchMutex();
    mutex.CatchMutex();
    return true;
}

FIBREX_NO_THREAD_SAFETY_ANALYSIS void make_anew(WindowUnixMutex& mutex)
{
    new (&mutex) WindowUnixMutex;
}
} // namespace

bool MEM_MemPager::guard_forks()
{
    static const bool guarded =
        Platform::Get().OnFork(before_fork, after_fork_in_parent, after_fork_in_child);
    return guarded;
}

// From the start: a fork may come while another thread uses a pager for the very first time. So,
// too, the locks that hosts take around a fork are taken before these, as in their other calls.
const bool MEM_MemPager::s_forks_are_guarded = guard_forks();

// A child of a process with several threads finds the tables whole and the locks free. The thread
// that forks may hold some of them, in a guard or in the log's sink.
FIBREX_NO_THREAD_SAFETY_ANALYSIS void MEM_MemPager::before_fork()
{
    bool holds_stripe = false;
    for (const WindowUnixMutex& stripe : MEM_PagerInfo::mutex)
        holds_stripe = holds_stripe || stripe.HeldByThisThread();
    const bool holds_last = mutex.HeldByThisThread();
    s_fork_locks.vec = take(mutex_vec, holds_last || holds_stripe);
    for (std::size_t i = 0; i < MEM_PagerInfo::kStripes; ++i)
        s_fork_locks.stripes[i] = take(MEM_PagerInfo::mutex[i], holds_last || holds_stripe);
    mutex.CatchMutex();
}

FIBREX_NO_THREAD_SAFETY_ANALYSIS void MEM_MemPager::after_fork_in_parent()
{
    mutex.ReleaseMutex();
    for (std::size_t i = 0; i < MEM_PagerInfo::kStripes; ++i)
        if (s_fork_locks.stripes[i])
            MEM_PagerInfo::mutex[i].ReleaseMutex();
    if (s_fork_locks.vec)
        mutex_vec.ReleaseMutex();
}

FIBREX_NO_THREAD_SAFETY_ANALYSIS void MEM_MemPager::after_fork_in_child()
{
    for (std::size_t i = 0; i < MEM_PagerInfo::kStripes; ++i)
        if (!s_fork_locks.stripes[i])
            make_anew(MEM_PagerInfo::mutex[i]);
    if (!s_fork_locks.vec) {
        make_anew(mutex_vec);
        for (MEM_MemPager* const pager : {s_general.Living(), s_second.Living()})
            if (pager != nullptr)
                std::fill_n(pager->m_stripe_held, MEM_PagerInfo::kStripes, false);
    }
    if (s_general.pager != nullptr || s_second.pager != nullptr)
        RetireInheritedBlocks();
    after_fork_in_parent();
}

MEM_MemPager::MEM_MemPager() : MEM_MemPager(Memory_ShmmHeap::GetInstance()) {}

MEM_MemPager::MEM_MemPager(ShmmHeap* heap) : m_block_ids(kNameBuckets), m_heap(heap)
{
    m_block_ids.max_load_factor(1e9F); // the number of buckets stays
    m_counters_on = ZorGLog.GetLogLevel(kCountersCode) == kCountersLevel;
    GetStreamedOwnersRepository(); // made first, it outlives the pager
    MEM_MemoryConfiguration::GetInstance();
}

MEM_MemPager::~MEM_MemPager()
{
    WindowUnixGuard lock(&mutex);
    close_down();
    m_blocks.ForEach([](int, RegisteredBlock& block) { delete &block; });
    m_blocks.Clear();
}

// A thread that is inside may wait for the one that ends the process, or be gone already, as on
// some systems: then the pager only closes.
void MEM_MemPager::end()
{
    if (!mutex.CatchMutexFor(kLongestWaitAtTheEnd)) {
        m_ended = true;
        return;
    }
    WindowUnixGuard lock(&mutex, std::adopt_lock);
    close_down();
    m_ended = true;
}

void MEM_MemPager::close_down()
{
    ClearCache();
    m_blocks.ForEach([](int, RegisteredBlock&) {
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
    Zor_PerformanceCounterData* const counter = get_mem_counter(ALLOCATE_COUNTER_NAME);
    mark(counter);
    MEM_MemInfo* const piece =
        allocate_piece(size, static_cast<unsigned int>(alignment), always_mapped, group_id);
    if (piece == nullptr)
        return -1;

    int result = -1;
    try {
        result = internal_register(*piece, info);
    } catch (...) {
        give_back(piece);
        throw;
    }
    if (result != 0) {
        ZOR_LOG("MEM_MemPager::Allocate", 7,
                "Allocate: Failed mapping the shared memory. Freeing the block..\n");
        give_back(piece);
        return -1;
    }
    close(counter);
    check_invariants();
    return 0;
}

MEM_MemInfo* MEM_MemPager::ask_heap(unsigned int size, unsigned int alignment,
                                    unsigned int always_mapped, unsigned int group_id)
{
    BaseInfo* piece = nullptr;
    m_heap->SetClient(this);
    if (m_heap->Allocate(size, alignment, &piece, always_mapped, group_id) != 0)
        return nullptr;
    // The pager's heap hands out nothing else.
    return static_cast<MEM_MemInfo*>(piece);
}

MEM_MemInfo* MEM_MemPager::allocate_piece(unsigned int size, unsigned int alignment,
                                          unsigned int always_mapped, unsigned int group_id)
{
    if (MEM_MemInfo* const piece = ask_heap(size, alignment, always_mapped, group_id))
        return piece;
    ZOR_LOG("MEM_MemPager::Allocate", 5,
            "Allocate: Couldn't allocate shared memory, but we can still free MEM cache and try "
            "again (Details: User mapped memory size=%.2fMB, Cached mapped memory "
            "size=%.2fMB)\n",
            InMb(client_mapped()), InMb(m_total_cached));
    ClearCache();
    MEM_MemInfo* const piece = ask_heap(size, alignment, always_mapped, group_id);
    if (piece == nullptr)
        report_refused_piece(size);
    else
        ZOR_LOG("MEM_MemPager::Allocate", 5,
                "Allocate: Succeeded re-allocating shared memory (after we cleared the cache). "
                "Everything is ok now.\n");
    return piece;
}

void MEM_MemPager::report_refused_piece(unsigned int size)
{
    ZOR_LOG("MEM_MemPager::Allocate", 3,
            "Process couldn't allocate Shared Memory! (Details: Shared memory Allocation failed, "
            "we cleared the cache but allocation failed again)\n");
    ZOR_LOG("MEM_MemPager::Allocate", 3,
            "Shared memory is probably consumed. See details below:\n");
    ZOR_LOG("MEM_MemPager::Allocate", 3, "\tTried to allocate %.2fMB\n", InMb(size));
    RegionLimits.Tell("MEM_MemPager::Allocate");
    PrintSharedMemoryStatus();
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
    const int known = find_local_block(*info.Owner());
    const int id = known >= 0 ? register_on_block(known, info) : register_new_block(info);
    info.m_registered = id >= 0;
    return id;
}

/// The block of a region that this process has made; -1 if this pager doesn't know it.
int MEM_MemPager::find_local_block(const BaseMapInfo& owner) const
{
    const RegisteredBlock* const block = m_blocks.Find(owner.m_block_id);
    return block != nullptr && block->owner == &owner ? owner.m_block_id : -1;
}

int MEM_MemPager::register_on_block(int id, MEM_MemInfo& info)
{
    RegisteredBlock& block = m_blocks.At(id);
    if (block.stat == RegisteredBlock::kUnmapped && private_map(&block, false, true) != 0) {
        ZOR_LOG("MEM_MemPager::internal_register", 5,
                "MemPager::Register failed to map block %d!\n", id);
        return -1;
    }
    if (block.stat == RegisteredBlock::kCached)
        leave_cache(id, block);
    block.stat = RegisteredBlock::kMapped;
    ++block.m_ref;
    ++block.ref;
    info.UpdatePtrByBase(block.owner->Ptr());
    m_local_pieces_size += info.Size();
    return id;
}

/// What a new block needs in the pager's tables, set aside before anything else happens and
/// taken back unless it was used; the next block will want the table's slot again.
class MEM_MemPager::NextBlock
{
public:
    NextBlock(MEM_MemPager& pager, const RWCString& name) FIBREX_NO_THREAD_SAFETY_ANALYSIS
        : m_pager(pager),
          m_name(name),
          m_id(pager.m_blocks.Length())
    {
        pager.m_blocks.ReserveNext();
        pager.m_block_ids.emplace(name, m_id);
        try {
            pager.m_cache_queue.Reserve(m_id);
        } catch (...) {
            pager.m_block_ids.erase(name);
            throw;
        }
    }

    ~NextBlock() FIBREX_NO_THREAD_SAFETY_ANALYSIS
    {
        if (m_used)
            return;
        m_pager.m_block_ids.erase(m_name);
        m_pager.m_cache_queue.Release(m_id);
    }

    NextBlock(const NextBlock&) = delete;
    NextBlock& operator=(const NextBlock&) = delete;

    int Use(RegisteredBlock* block) FIBREX_NO_THREAD_SAFETY_ANALYSIS
    {
        m_used = true;
        m_pager.m_blocks.Append(block);
        ++m_pager.m_blocks_count;
        return m_id;
    }

private:
    MEM_MemPager& m_pager;
    const RWCString m_name;
    const int m_id;
    bool m_used = false;
};

int MEM_MemPager::register_new_block(MEM_MemInfo& info)
{
    const RWCString name = info.Owner()->Name();
    if (m_block_ids.find(name) != m_block_ids.end()) {
        // Names can be foreseen, and so forged; a piece on the foreign view couldn't be written to.
        ZOR_LOG("MEM_MemPager::Register", 3,
                "Register: Refused a new region: a descriptor from outside bears its name\n");
        return -1;
    }
    auto block = std::make_unique<RegisteredBlock>(info.Owner());
    NextBlock next(*this, name);
    if (private_map(block.get(), false, true) != 0) {
        ZOR_LOG("MEM_MemPager::internal_register", 5,
                "MemPager::Register failed to map a new block\n");
        return -1;
    }
    block->ref = 1;
    block->m_ref = 1;
    block->stat = RegisteredBlock::kMapped;
    info.UpdatePtrByBase(block->owner->Ptr());
    m_local_blocks_size += block->owner->Size();
    m_local_pieces_size += info.Size();
    info.Owner()->m_block_id = next.Use(block.release());
    return info.Owner()->m_block_id;
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

/// Whether a pager of this process has a region called `name` that this process made.
bool MEM_MemPager::makes_locally(const RWCString& name) const FIBREX_NO_THREAD_SAFETY_ANALYSIS
{
    const MEM_MemPager* const pagers[] = {this, s_general.Living(), s_second.Living()};
    for (const MEM_MemPager* const pager : pagers) {
        if (pager == nullptr)
            continue;
        const auto known = pager->m_block_ids.find(name);
        if (known != pager->m_block_ids.end() && pager->m_blocks.At(known->second).owner->Local())
            return true;
    }
    return false;
}

/// What a descriptor from outside can't be registered for; null if it can.
const char* MEM_MemPager::fault_of(MEM_MemInfo& info) const
{
    const std::uint64_t piece_end = std::uint64_t{info.Offset()} + info.Size();
    const std::uint64_t owner_end = std::uint64_t{info.GetOwnerOffset()} + info.GetOwnerSize();
    if (info.Owner() != nullptr)
        return "its owner is set: it was registered, not read";
    if (!BaseMapInfo::IsUniqueName(info.GetInfoName()) ||
        !BaseMapInfo::IsUniqueName(info.GetMappingName()))
        return "a name is not one that this library gives";
    if (info.Size() == 0 || piece_end > info.GetOwnerSize())
        return "the piece lies outside its region";
    if (owner_end > std::numeric_limits<unsigned int>::max() ||
        info.GetOwnerOffset() % Platform::Get().AllocationGranularity() != 0)
        return "there can be no such region";
    if (makes_locally(info.GetInfoName()) || makes_locally(info.GetMappingName()) ||
        IsMappingOfOwnFile(info.GetMappingName()))
        return "this process made the memory";
    return nullptr;
}

int MEM_MemPager::register_foreign(MEM_MemInfo& info, MEM_PagerInfo* out)
{
    if (const char* const fault = fault_of(info)) {
        ZOR_LOG("MEM_MemPager::Register", 3, "Register: Refused a descriptor: %s\n", fault);
        return -1;
    }
    auto state = std::make_unique<PagerInfoState>();
    auto piece = std::make_unique<MEM_MemInfo>(info);
    const auto known = m_block_ids.find(info.GetInfoName());
    int id = -1;
    if (known != m_block_ids.end()) {
        id = known->second;
        RegisteredBlock& block = m_blocks.At(id);
        if (piece_reaches_past(*piece, *block.owner)) {
            ZOR_LOG("MEM_MemPager::Register", 3,
                    "Register: Refused a descriptor: the piece lies outside its region\n");
            return -1;
        }
        piece->SetOwner(block.owner);
        ++block.ref;
    } else {
        id = register_foreign_block(info, *piece);
    }
    m_foreign_pieces_size += piece->Size();
    out->assign(std::move(state), id, this, piece.release(), false);
    return 0;
}

/// The owner of a new foreign block. It goes again unless the block came to be.
class MEM_MemPager::ForeignOwner
{
public:
    ForeignOwner(MEM_MemPager& pager, MEM_MemInfo& info)
        : m_pager(pager), m_name(info.GetInfoName())
    {
        RWCString mapping_name = info.GetMappingName();
        StreamedOwnersRepository* const owners = GetStreamedOwnersRepository();
        owners->SetClient(&pager);
        m_owner = owners->GetOwner(info.GetOwnerHandle(), mapping_name, m_name,
                                   info.GetOwnerOffset(), info.GetOwnerSize());
    }
    ~ForeignOwner() FIBREX_NO_THREAD_SAFETY_ANALYSIS
    {
        if (m_owner != nullptr)
            m_pager.release_owner(m_owner, m_name);
    }
    ForeignOwner(const ForeignOwner&) = delete;
    ForeignOwner& operator=(const ForeignOwner&) = delete;

    BaseMapInfo* Get() const { return m_owner; }
    void Keep() { m_owner = nullptr; }

private:
    MEM_MemPager& m_pager;
    RWCString m_name;
    BaseMapInfo* m_owner;
};

// A foreign block isn't mapped until a client maps a piece of it.
int MEM_MemPager::register_foreign_block(MEM_MemInfo& info, MEM_MemInfo& piece)
{
    ForeignOwner owner(*this, info);
    auto block = std::make_unique<RegisteredBlock>(owner.Get());
    NextBlock next(*this, info.GetInfoName());
    block->ref = 1;
    m_foreign_blocks_size += block->owner->Size();
    piece.SetOwner(owner.Get());
    owner.Keep();
    return next.Use(block.release());
}

void MEM_MemPager::StreamMemInfo(MEM_PagerInfo& info, Zor_oBuffer& out)
{
    WindowUnixGuard lock(&mutex); // another thread may map the piece meanwhile
    if (m_ended)
        return;
    m_blocks.At(info.Block()); // throws for a piece that is gone
    out << *info.GetMemInfoPtr();
}

int MEM_MemPager::Free(MEM_PagerInfo& info)
{
    WindowUnixGuard lock(&mutex);
    const int id = info.Block();
    if (id < 0 || info.GetMemInfoPtr() == nullptr || m_ended)
        return 0;
    RegisteredBlock& block = m_blocks.At(id);

    // The heap destroys the owner with the last piece, so the block leaves the tables before:
    // whatever comes in between, they are whole.
    BaseMapInfo* const owner = block.owner;
    RWCString name;
    const bool local = owner->Local();
    const bool last = --block.ref == 0;
    if (last) {
        name = owner->Name();
        forget_block(id, block, name);
    }
    free_piece(info.GetMemInfoPtr(), local);
    if (last && !local)
        release_owner(owner, name);
    info.Reset();
    check_invariants();
    return 0;
}

void MEM_MemPager::free_piece(MEM_MemInfo* piece, bool local)
{
    if (local) {
        m_local_pieces_size -= piece->Size();
        m_heap->Free(piece);
    } else {
        m_foreign_pieces_size -= piece->Size();
        delete piece;
    }
}

void MEM_MemPager::forget_block(int id, RegisteredBlock& block, const RWCString& name)
{
    const unsigned int size = block.owner->Size();
    if (block.stat != RegisteredBlock::kUnmapped)
        m_total_mapped -= size;
    if (block.stat == RegisteredBlock::kCached)
        m_total_cached -= size;
    m_cache_queue.Release(id);
    m_block_ids.erase(name);
    (block.owner->Local() ? m_local_blocks_size : m_foreign_blocks_size) -= size;
    m_blocks.Erase(id);
    delete &block;
    if (--m_blocks_count == 0)
        m_blocks.Clear();
}

void MEM_MemPager::release_owner(BaseMapInfo* owner, RWCString name)
{
    owner->Free();
    StreamedOwnersRepository* const owners = GetStreamedOwnersRepository();
    owners->SetClient(this);
    owners->ReleaseOwner(name);
}

// Mapping ---------------------------------------------------------------------------------------

int MEM_MemPager::Map(MEM_PagerInfo& info)
{
    WindowUnixGuard lock(&mutex);
    return MapWithoutLocks(info);
}

int MEM_MemPager::MapWithoutLocks(MEM_PagerInfo& info)
{
    if (info.Ptr() != nullptr)
        return 0;
    if (m_ended)
        return -1;
    const int id = info.Block();
    RegisteredBlock& block = m_blocks.At(id);
    Zor_PerformanceCounterData* counter = nullptr;
    if (block.stat == RegisteredBlock::kCached)
        counter = get_mem_counter(MAP_FROM_CACHE_COUNTER_NAME);
    else if (block.stat == RegisteredBlock::kUnmapped)
        counter = get_mem_counter(MAP_FROM_SHARED_COUNTER_NAME);
    mark(counter);

    if (private_map(&block, true, true) == -1)
        return -1;
    info.GetMemInfoPtr()->UpdatePtrByBase(block.owner->Ptr());
    if (block.stat == RegisteredBlock::kCached)
        leave_cache(id, block);
    block.stat = RegisteredBlock::kMapped;
    close(counter);
    check_invariants();
    return 0;
}

int MEM_MemPager::private_map(RegisteredBlock* block, bool add_ref, bool try_clear)
{
    if (block->owner->Ptr() != nullptr) {
        block->m_ref += add_ref ? 1 : 0;
        return 0;
    }
    if (block->owner->Map() == -1) {
        if (!try_clear) {
            ZOR_LOG("MEM_MemPager::private_map", 6,
                    "Process couldn't Map Shared Memory (process is out of memory), without "
                    "trying to clear cache (Details: Map failed and we didn't try to clear the "
                    "cache which is %.1fMB)\n",
                    InMb(m_total_cached));
            return -1;
        }
        if (map_after_clearing(block) != 0)
            return -1;
    }
    ViewLimits.Ended();
    block->m_ref += add_ref ? 1 : 0;
    m_total_mapped += block->owner->Size();
    return 0;
}

int MEM_MemPager::map_after_clearing(RegisteredBlock* block)
{
    const double size = InMb(block->owner->Size());
    ZOR_LOG("MEM_MemPager::private_map", 5,
            "Map: Couldn't map shared memory, but we can still free MEM cache and try again\n");
    ZOR_LOG("MEM_MemPager::private_map", 5,
            "(Details: Size %.1fMB, User mapped memory=%.1fMB, Cached mapped memory=%.1fMB)\n",
            size, InMb(client_mapped()), InMb(m_total_cached));
    ClearCache();
    if (block->owner->Map() == 0) {
        ZOR_LOG("MEM_MemPager::private_map", 5,
                "Map: Succeeded re-mapping shared memory (after we cleared the cache). "
                "Everything is ok now (New User mapped memory is %.1fMB)\n",
                InMb(client_mapped()));
        return 0;
    }
    ZOR_LOG("MEM_MemPager::private_map", 3,
            "Process couldn't Map Shared Memory, probably because process is out of memory! "
            "(Details: Map failed, we cleared the cache but map failed again)\n");
    ZOR_LOG("MEM_MemPager::private_map", 3,
            "Either a memory leak occurred, or too much memory is allocated. See details "
            "below:\n");
    ZOR_LOG("MEM_MemPager::private_map", 3, "\tTried to map: %.2fMB.\n", size);
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
    RegisteredBlock& block = m_blocks.At(id);
    const unsigned long long limit = cache_limit();

    info.GetMemInfoPtr()->UpdatePtrByBase(nullptr);
    if (--block.m_ref != 0)
        return 0; // other pieces still need the view
    Zor_PerformanceCounterData* const to_cache = get_mem_counter(UNMAP_TO_CACHE_COUNTER_NAME);
    Zor_PerformanceCounterData* const to_shared = get_mem_counter(UNMAP_TO_SHARED_COUNTER_NAME);
    mark(to_cache);
    if (m_total_mapped > limit && !evict_at_least(block.owner->Size(), to_shared)) {
        drop_view(&block); // nothing older could make room
        close(to_shared);
    } else {
        enter_cache(id, block);
        close(to_cache);
    }
    check_invariants();
    return 0;
}

bool MEM_MemPager::evict_at_least(unsigned int needed, Zor_PerformanceCounterData* to_shared)
{
    for (unsigned long long freed = 0; freed < needed;) {
        mark(to_shared);
        if (m_cache_queue.IsEmpty())
            return false;
        RegisteredBlock& victim = m_blocks.At(m_cache_queue.Pop());
        m_total_cached -= victim.owner->Size();
        freed += drop_view(&victim);
        close(to_shared);
    }
    return true;
}

unsigned int MEM_MemPager::drop_view(RegisteredBlock* block)
{
    const unsigned int unmapped = unmap_block(block);
    m_total_mapped -= unmapped;
    return unmapped;
}

unsigned int MEM_MemPager::unmap_block(RegisteredBlock* block)
{
    const unsigned long long limit =
        setting_or_none(&MEM_MemoryConfiguration::UnmapWorkingSetLimit);
    const unsigned int unmapped = block->owner->Unmap() == 0 ? block->owner->Size() : 0;
    block->stat = RegisteredBlock::kUnmapped;
    m_unmapped_since_trim += unmapped;
    if (limit != 0 && m_unmapped_since_trim > limit) {
        m_unmapped_since_trim = 0;
        ReduceWorkingSet();
    }
    return unmapped;
}

// Room for the id was set aside when the block was registered.
void MEM_MemPager::enter_cache(int id, RegisteredBlock& block)
{
    m_cache_queue.Push(id);
    m_total_cached += block.owner->Size();
    block.stat = RegisteredBlock::kCached;
}

void MEM_MemPager::leave_cache(int id, RegisteredBlock& block)
{
    m_cache_queue.Remove(id);
    m_total_cached -= block.owner->Size();
}

// Cache and reclaim -----------------------------------------------------------------------------

int MEM_MemPager::Cache(MEM_PagerInfo& info)
{
    WindowUnixGuard lock(&mutex);
    if (m_ended)
        return -1;
    const unsigned long long limit = cache_limit();
    if (m_total_mapped > limit) {
        ZOR_LOG("MEM_MemPager::Cache", 5,
                "Cache: Won't cache the page, because total mapped <%.2fMB> is bigger than the "
                "Cache Limit <%.2fMB>\n",
                InMb(m_total_mapped), InMb(limit));
        return -1;
    }
    const int id = info.Block();
    RegisteredBlock& block = m_blocks.At(id);
    if (block.stat != RegisteredBlock::kUnmapped)
        return 0;
    Zor_PerformanceCounterData* const counter = get_mem_counter(CACHE_COUNTER_NAME);
    mark(counter);
    if (private_map(&block, false, false) != 0) {
        ZOR_LOG("MEM_MemPager::Cache", 5,
                "Cache: Memory is low, failed to map memory to be cached.\n");
        return -1;
    }
    close(counter);
    enter_cache(id, block);
    check_invariants();
    return 0;
}

unsigned long long MEM_MemPager::ClearCache()
{
    WindowUnixGuard lock(&mutex);
    if (m_ended)
        return 0;
    Zor_PerformanceCounterData* const clear = get_mem_counter(CLEAR_CACHE_COUNTER_NAME);
    Zor_PerformanceCounterData* const to_shared = get_mem_counter(UNMAP_TO_SHARED_COUNTER_NAME);
    mark(to_shared);
    mark(clear);
    const unsigned long long old_mapped = m_total_mapped;
    const unsigned long long old_cached = m_total_cached;
    m_blocks.ForEach([&](int, RegisteredBlock& block) FIBREX_NO_THREAD_SAFETY_ANALYSIS {
        if (block.stat == RegisteredBlock::kCached) {
            drop_view(&block);
            close(to_shared);
        }
    });
    m_cache_queue.Clear();
    m_total_cached = 0;
    close(clear);
    ZOR_LOG("MEM_MemPager::ClearCache", 6,
            "Cleared cache. Old Total Mapped was <%.2fMB>, from it was Cached <%.2fMB>. New Total "
            "Mapped is <%.2fMB> (No Cache)\n",
            InMb(old_mapped), InMb(old_cached), InMb(m_total_mapped));
    s_clearings += old_mapped != m_total_mapped ? 1 : 0;
    return old_mapped - m_total_mapped;
}

void MEM_MemPager::set_new_memory_handler()
{
    s_new_handler_handled = true;
    static const bool unwanted = std::getenv("VORTELIX_DIS_NEW_HANDLER") != nullptr;
    if (unwanted)
        return;
    ZOR_LOG("MEM_MemPager::set_new_memory_handler", 5,
            "MEM_MemPager::MEM_MemPager() setting new handler\n");
    Platform::Get().OnAllocationFailure([](const Platform::FailedAllocation& failed) {
        return clear_cache_handler(failed.size, failed.reported, failed.mark);
    });
}

/// Whether a clearing, by whatever thread, has given something back since this thread looked last:
/// what it asked for in vain may be there by now.
bool MEM_MemPager::was_helped(std::uint64_t& mark)
{
    return std::exchange(mark, s_clearings) != mark;
}

int MEM_MemPager::clear_cache_handler(std::size_t size, bool reported, std::uint64_t& mark)
{
    if (!reported)
        ZOR_LOG("clear_cache_handler", 5,
                "clear_cache_handler: Couldn't allocate with new, but we can still free MEM cache "
                "and try again (Details: AllocatedSize=<%d bytes>)\n",
                static_cast<int>(size));
    // The thread that failed may hold a lock of the host's that whoever holds `mutex` waits for.
    if (!mutex.CatchMutexFor(kLongestWaitInHandler)) {
        if (was_helped(mark))
            return 1;
        ZOR_LOG("clear_cache_handler", 3,
                "clear_cache_handler: The pager is busy, so no cache could be freed\n");
        throw std::bad_alloc();
    }
    WindowUnixGuard lock(&mutex, std::adopt_lock);
    const int mask = pagers_to_clear();
    unsigned long long freed = 0;
    if ((mask & 2) != 0)
        freed += clear_for_handler(s_general.Living(), reported);
    if ((mask & 1) != 0)
        freed += clear_for_handler((s_single_handle ? s_general : s_second).Living(), reported);
    if (freed != 0) {
        ZOR_LOG("clear_cache_handler", 5,
                "clear_cache_handler: Succeeded clearing cache, everything is ok now. Will try to "
                "allocate again..\n");
        mark = s_clearings;
        return 1;
    }
    if (was_helped(mark))
        return 1;
    if (!reported)
        report_exhaustion(size);
    throw std::bad_alloc();
}

// A pager that doesn't exist yet has nothing to clear, and this is no time to make one.
unsigned long long MEM_MemPager::clear_for_handler(MEM_MemPager* pager, bool reported)
{
    const unsigned long long freed = pager != nullptr ? pager->ClearCache() : 0;
    if (freed != 0)
        ZOR_LOG("clear_cache_handler", 5,
                "clear_cache_handler: Succeeded freeing mem cache (Details: Freed %.2fMB from "
                "Other cached memory)\n",
                InMb(freed));
    else if (!reported)
        ZOR_LOG("clear_cache_handler", 5,
                "clear_cache_handler: Didn't find any cache to free...\n");
    return freed;
}

void MEM_MemPager::report_exhaustion(std::size_t size)
{
    ZOR_LOG("clear_cache_handler", 2,
            "Process is out of memory, and about to crash! (Details: new Allocation failed, and we "
            "had no more cache to free)\n");
    ZOR_LOG("clear_cache_handler", 2,
            "Either a memory leak occurred, or too much memory is allocated. See details "
            "below:\n");
    ZOR_LOG("clear_cache_handler", 2, "\tTried to allocate: %.2fMB\n", InMb(size));
    print_virtual_memory_status();
}

/// Walks the views of a pager's blocks, of which another process may see the memory, but never
/// private memory.
class MEM_MemPager::BlockViews final : public Platform::Views
{
public:
    explicit BlockViews(const Mem_BlockTable& blocks) : m_blocks(blocks) {}

    bool Next(void*& view, std::uint64_t& size) override
    {
        for (int id = m_blocks.NextFrom(m_next); id >= 0; id = m_blocks.NextFrom(id + 1)) {
            BaseMapInfo& owner = *m_blocks.At(id).owner;
            if (owner.Ptr() == nullptr)
                continue;
            view = owner.Ptr();
            size = owner.Size();
            m_next = id + 1;
            return true;
        }
        return false;
    }

private:
    const Mem_BlockTable& m_blocks;
    int m_next = 0;
};

void MEM_MemPager::ReduceWorkingSet()
{
    ZOR_LOG("MEM_MemPager::ReduceWorkingSet", 6, "MEM_MemPager::ReduceWorkingSet()\n");
    WindowUnixGuard lock(&mutex);
    BlockViews views(m_blocks);
    if (!Platform::Get().TrimWorkingSet(views))
        ZOR_LOG("MEM_MemPager::ReduceWorkingSet", 3, "failed to reduce working set (error=%d)!!\n",
                static_cast<int>(Platform::Get().LastError()));
}

// Diagnostics -----------------------------------------------------------------------------------

Zor_PerformanceCounterData* MEM_MemPager::get_mem_counter(const RWCString& name)
{
    if (!m_counters_on)
        return nullptr;
    return Zor_PerformanceCounters::Instance()->GetOrAddCounter(
        {}, Zor_PerformanceCounterData::SYSTEM_GENERAL, name, Zor_PerformanceCounterData::RW_NULL,
        Zor_PerformanceCounterData::RW_NULL, -1, 5, 7, nullptr);
}

int MEM_MemPager::GetCurrentStatus(Mem_Status& status)
{
    WindowUnixGuard lock(&mutex);
    status.blocks_count = m_blocks_count;
    status.local_blocks_count = 0;
    status.foreign_blocks_size = m_foreign_blocks_size;
    status.foreign_pieces_size = m_foreign_pieces_size;
    status.local_blocks_size = m_local_blocks_size;
    status.local_pieces_size = m_local_pieces_size;
    status.total_cached = m_total_cached;
    status.total_mapped = m_total_mapped;
    m_blocks.ForEach([&](int, RegisteredBlock& block) {
        status.local_blocks_count += block.owner->Local() ? 1 : 0;
    });
    return 0;
}

namespace
{
/// Writes plain decimals to where another stream writes, which keeps the settings that its owner
/// gave it: its language, its number base, its widths.
class PlainStream : public std::ostream
{
public:
    explicit PlainStream(const std::ostream& other) : std::ostream(nullptr)
    {
        imbue(std::locale::classic()); // without a buffer, which would take the language over
        rdbuf(other.rdbuf());
    }
};
} // namespace

void MEM_MemPager::PrintDebugStatus()
{
    WindowUnixGuard lock(&mutex);
    PlainStream out(std::cout);
    out << "<<<----------------- MEM_MemPager::PrintStatus()--------------------->>>" << std::endl;
    out << "Total Mapped = " << m_total_mapped << " , Total Cached = " << m_total_cached
        << std::endl;
    m_heap->PrintStatus(out);
    out << ">>>----------------- MEM_MemPager::PrintStatus()---------------------<<<" << std::endl;
    debug_print_status();
}

void MEM_MemPager::debug_print_status()
{
    ZOR_LOG("MEM_MemPager::debug_print_status", 2, "START ***debug_print_status*** \n");
    for (int id = 0; id < m_blocks.Length(); ++id) {
        RegisteredBlock* const block = m_blocks.Find(id);
        if (block == nullptr)
            ZOR_LOG("MEM_MemPager::debug_print_status", 2, "<%d> RegisteredBlock is NULL\n", id);
        else
            ZOR_LOG("MEM_MemPager::debug_print_status", 2,
                    "<%Iu> %s,ref <%d>, m_ref <%d>, stat <%d>\n", static_cast<std::uint64_t>(id),
                    block->owner->Name().data(), block->ref, block->m_ref, block->stat);
    }
    ZOR_LOG("MEM_MemPager::debug_print_status", 2, "END ***debug_print_status*** \n");
}

namespace
{
constexpr long long kLongestDump = 10485760;
const char kSeventyStars[] =
    "**********************************************************************";

/// The path of the dump file, worked out by each report at its first run. There may be no memory
/// then. What is cut is still longer than any system opens, so that no other file is meant.
struct DumpPath {
    DumpPath()
    {
        std::snprintf(text, sizeof text, "%s/mem_dump.log", Zor_LogFile::GetLogConfigDir());
    }
    char text[4096 + 1];
};

void empty_dump_if_too_long(const char* function, const char* path)
{
    if (Platform::Get().FileLength(path) <= kLongestDump)
        return;
    ZOR_LOG(function, 5, "mem_debug log file has reached it's maximal size. Truncating it...\n");
    Platform::Get().TruncateFile(path);
}

void trace_and_point_to_dump(const char* function, const char* path)
{
    TraceCallsIfWanted();
    ZOR_LOG(function, 2, "\tSee debug information in: <%s>\n", path);
}

/// These are the last words of a process in trouble: what they can't say, they leave out.
void without_throwing(const char* function, auto report) noexcept
{
    try {
        report();
    } catch (...) {
        ZOR_LOG(function, 2, "\tThere is no memory for the whole report\n");
    }
}
} // namespace

void MEM_MemPager::PrintSharedMemoryStatus()
{
    WindowUnixGuard lock(&mutex);
    without_throwing("MEM_MemPager::PrintSharedMemoryStatus",
                     [this]() FIBREX_NO_THREAD_SAFETY_ANALYSIS { report_shared_memory(); });
}

void MEM_MemPager::report_shared_memory()
{
    constexpr char function[] = "MEM_MemPager::PrintSharedMemoryStatus";
    Zor_OSMemoryInfo machine;
    Zor_System::GetHandle()->GetOsMemInfo(machine);
    const auto configured = setting_or_none(&MEM_MemoryConfiguration::GetSwapMaxSizeInMb) +
                            setting_or_none(&MEM_MemoryConfiguration::FileHeap_MaxTotalSpaceInMb);
    ZOR_LOG(function, 2,
            "\tMEM Shared memory estimated size: %dMB; Maximal (Configured) Shared memory size is "
            "%uMB\n",
            static_cast<int>(m_heap->GetSizeInMb()), static_cast<unsigned int>(configured));
    ZOR_LOG(function, 2, "\tMaximal OS Swap size: %IuMB, Available OS Swap size: %IuMB\n",
            machine.total_swap, machine.available_swap);
    static const DumpPath path;
    empty_dump_if_too_long(function, path.text);
    Mem_DumpFile file(path.text);
    std::ostream dump(&file);
    dump.imbue(std::locale::classic()); // plain decimals, whatever the host's language
    write_dump_record(dump, machine);
    trace_and_point_to_dump(function, path.text);
}

void MEM_MemPager::write_dump_record(std::ostream& dump, const Zor_OSMemoryInfo& machine)
{
    char name[256];
    char system[256];
    char time[64];
    Platform::Get().ProcessName(name, sizeof name); // Zor_System would need memory for them
    Platform::Get().SystemName(system, sizeof system);
    Platform::Get().TimeAndDate(time, sizeof time);
    using std::endl; // line by line, so that as much as possible arrives
    dump << endl << endl << kSeventyStars << endl;
    dump << "Shared Memory Debug Information for PID <" << Platform::Get().ProcessId()
         << ">, Process Name <" << name << ">" << endl;
    dump << "Time and Date:\t\t\t" << time << endl << endl;
    dump << "Total Mapped = " << m_total_mapped << "; Total Cached = " << m_total_cached << endl
         << endl;
    m_heap->PrintStatus(dump);
    dump << endl << endl << "System Information:" << endl;
    dump << "OSVersion: <" << system << ">; Address Space Size: <" << machine.address_space
         << "MB>;" << endl;
    dump << "Total Swap Size: <" << machine.total_swap << "; Available Swap Size: <"
         << machine.available_swap << "MB>;" << endl;
    dump << "Total RAM Size: <" << machine.total_ram << "; Available RAM Size: <"
         << machine.available_ram << "MB>;" << endl;
    dump << endl << endl << endl << kSeventyStars << endl;
}

void MEM_MemPager::PrintVirtualMemoryStatus()
{
    WindowUnixGuard lock(&mutex);
    try {
        GetHandle();
        GetHandleForMP();
    } catch (...) { // a pager that couldn't be made has nothing to tell
    }
    print_virtual_memory_status();
}

/// Makes no pager: this is for when there is no memory.
void MEM_MemPager::print_virtual_memory_status()
{
    without_throwing("MEM_MemPager::PrintVirtualMemoryStatus", [] { report_address_space(); });
}

void MEM_MemPager::report_address_space()
{
    constexpr char function[] = "MEM_MemPager::PrintVirtualMemoryStatus";
    static const DumpPath path;
    empty_dump_if_too_long(function, path.text);
    if (!ReportAddressSpace("src/Mem/Mem_MemPager", function, path.text))
        return;
    print_usage((s_single_handle ? s_general : s_second).Living());
    print_usage(s_general.Living());
    trace_and_point_to_dump(function, path.text);
}

void MEM_MemPager::print_usage(MEM_MemPager* pager)
{
    Mem_Status status;
    if (pager == nullptr || pager->GetCurrentStatus(status) != 0 || status.total_mapped == 0)
        return;
    ZOR_LOG("MEM_MemPager::PrintVirtualMemoryStatus", 2,
            "\tMEM memory usage: User mapped shared memory: %.2fMB; Cached mapped shared memory: "
            "%.2fMB\n",
            InMb(status.total_mapped - status.total_cached), InMb(status.total_cached));
}

const char* MEM_MemPager::broken_invariant() const
{
    struct Sums {
        int blocks = 0;
        int cached = 0;
        unsigned long long local = 0;
        unsigned long long foreign = 0;
        unsigned long long mapped_bytes = 0;
        unsigned long long cached_bytes = 0;
        const char* broken = nullptr;

        void Expect(bool holds, const char* what) { broken = holds ? broken : what; }
    } sums;

    m_blocks.ForEach([&](int id, RegisteredBlock& block) FIBREX_NO_THREAD_SAFETY_ANALYSIS {
        const unsigned int size = block.owner->Size();
        const bool cached = block.stat == RegisteredBlock::kCached;
        const bool mapped = block.stat == RegisteredBlock::kMapped;
        const auto named = m_block_ids.find(block.owner->Name());
        sums.blocks += 1;
        sums.cached += cached ? 1 : 0;
        (block.owner->Local() ? sums.local : sums.foreign) += size;
        sums.mapped_bytes += block.owner->Ptr() != nullptr ? size : 0;
        sums.cached_bytes += cached ? size : 0;
        sums.Expect(block.ref > 0, "a block without pieces");
        sums.Expect(mapped ? block.m_ref > 0 : block.m_ref == 0, "m_ref against stat");
        sums.Expect(!(mapped || cached) || block.owner->Ptr() != nullptr, "a view is missing");
        sums.Expect(m_cache_queue.Contains(id) == cached, "the queue against stat");
        sums.Expect(named != m_block_ids.end() && named->second == id, "the name index");
    });
    sums.Expect(m_cache_queue.Validate(), "the queue's index");
    sums.Expect(m_cache_queue.IsEmpty() == (sums.cached == 0), "an id too many in the queue");
    sums.Expect(sums.blocks == m_blocks_count, "m_blocks_count");
    sums.Expect(m_block_ids.size() == static_cast<std::size_t>(sums.blocks), "a name too many");
    sums.Expect(sums.blocks != 0 || m_blocks.Length() == 0, "an empty table with a length");
    sums.Expect(sums.local == m_local_blocks_size, "m_local_blocks_size");
    sums.Expect(sums.foreign == m_foreign_blocks_size, "m_foreign_blocks_size");
    sums.Expect(sums.mapped_bytes == m_total_mapped, "m_total_mapped");
    sums.Expect(sums.cached_bytes == m_total_cached, "m_total_cached");
    return sums.broken;
}

void MEM_MemPager::check_invariants() const
{
#if defined(MEMPAGER_CHECK_INVARIANTS)
    assert(broken_invariant() == nullptr);
#endif
}
