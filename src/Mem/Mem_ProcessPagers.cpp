// The pagers of the process, which all threads share: how they come to be, what a failed allocation
// and a fork do to them, and how they end.

#include "Mem/Mem_ForkGuard.h"
#include "Mem/Mem_MemInfo.h"
#include "Mem/Mem_PagerLog.h"
#include "Mem/Mem_PagerRooms.h"
#include "Mem/Mem_Refusal.h"
#include "Mem/Mem_Repeats.h"
#include "Mem/Mem_Reports.h"
#include "Mem/Mem_Settings.h"
#include "Mem/Mem_ShmmHeap.h"
#include "NRVlog/Zor_Log.h"
#include "Platform/Process.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <new>
#include <utility>

namespace
{
constexpr std::chrono::seconds kLongestWaitInHandler(1);
constexpr std::chrono::seconds kLongestWaitAtTheEnd(1);

/// Which pagers a failed allocation clears: 2 the general one, 1 the second one, 3 both.
int pagers_to_clear()
{
    static const int mask = [] {
        const char* const text = std::getenv("VORTELIX_NEW_HANDLER");
        return text != nullptr ? std::atoi(text) : 3;
    }();
    return mask;
}
} // namespace

WindowUnixMutex MEM_MemPager::mutex;
WindowUnixMutex MEM_MemPager::mutex_vec;
std::atomic<int> MEM_MemPager::s_hits_held_off = 0;
MEM_MemPager::ProcessSlot MEM_MemPager::s_general;
MEM_MemPager::ProcessSlot MEM_MemPager::s_second;
std::atomic<bool> MEM_MemPager::s_single_handle = false;
std::atomic<std::uint64_t> MEM_MemPager::s_clearings = 0;
bool MEM_MemPager::s_new_handler_handled = false;

/// An allocation that has failed on this thread.
struct Mem_FailedAllocation : Platform::Process::FailedAllocation {
};

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

// The guard is a member function's static object, because the locks that it takes are private to
// their classes. It is initialised at compile time, so it works before any constructor has run.
Mem_ForkGuard& MEM_MemPager::fork_guard()
{
    static constinit Mem_ForkGuard guard(mutex_vec, MEM_PagerInfo::mutex, mutex);
    return guard;
}

bool MEM_MemPager::guard_forks()
{
    static const bool guarded = Platform::Process::Get().OnFork(
        [] { fork_guard().Before(); }, [] { fork_guard().AfterInParent(); }, after_fork_in_child);
    return guarded;
}

// Forks are guarded from the time that the library is loaded, since a fork may come while another
// thread makes the first pager. That also sets the order of locks: what a host registers later for
// forks is run earlier, so the host's own locks are taken before the library's, as in all calls.
const bool MEM_MemPager::s_forks_are_guarded = guard_forks();

// The guard holds the locks here, which the analysis can't see.
FIBREX_NO_THREAD_SAFETY_ANALYSIS void MEM_MemPager::after_fork_in_child()
{
    const bool in_guard = fork_guard().InChild();
    for (MEM_MemPager* const pager : {s_general.Living(), s_second.Living()}) {
        if (pager == nullptr)
            continue;
        pager->m_rooms->views.GatherAll();
        if (!in_guard)
            std::fill_n(pager->m_stripe_held, MEM_PagerInfo::kStripes, false);
    }
    if (s_general.pager != nullptr || s_second.pager != nullptr)
        RetireInheritedBlocks();
    fork_guard().AfterInParent();
}

// The thread that holds the lock may itself wait for the thread that ends the process: after a
// while the pager closes without the lock, and keeps its cache. So it does where the system has
// ended the other threads already: then any lock may be held for ever, the host's malloc's too.
void MEM_MemPager::end()
{
    if (Platform::Process::Get().OthersHaveEnded() || !mutex.CatchMutexFor(kLongestWaitAtTheEnd)) {
        m_ended = true;
        return;
    }
    WindowUnixGuard lock(&mutex, std::adopt_lock);
    close_down();
    m_ended = true;
}

/// Whether a pager of this process has a block called `name` of a region that this process made.
bool MEM_MemPager::has_local_block(const RWCString& name) const
{
    const MEM_MemPager* const pagers[] = {this, s_general.Living(), s_second.Living()};
    for (const MEM_MemPager* const pager : pagers) {
        const int id = pager != nullptr ? pager->m_rooms->blocks.IdOf(name) : -1;
        if (id >= 0 && pager->m_rooms->blocks.At(id).owner->Local())
            return true;
    }
    return false;
}

// Failed allocations ----------------------------------------------------------------------------

void MEM_MemPager::set_new_memory_handler()
{
    s_new_handler_handled = true;
    static const bool wanted = ReclaimIsWanted();
    if (!wanted)
        return;
    ZOR_LOG("MEM_MemPager::set_new_memory_handler", 5,
            "MEM_MemPager::MEM_MemPager() setting new handler\n");
    Platform::Process::Get().OnAllocationFailure(
        [](const Platform::Process::FailedAllocation& failed) {
            return clear_cache_handler({failed});
        });
}

/// Whether a clearing, by whatever thread, has given something back since this thread looked last:
/// what it asked for in vain may be there by now.
bool MEM_MemPager::was_helped(std::uint64_t& mark)
{
    return std::exchange(mark, s_clearings) != mark;
}

int MEM_MemPager::clear_cache_handler(const Mem_FailedAllocation& failed)
{
    std::uint64_t& mark = failed.mark;
    if (!failed.reported)
        Mem_PagerLog::AllocationFailed(failed.size);
    // This thread may hold a lock of the host's for which the holder of `mutex` waits, so it must
    // not wait for `mutex` for ever.
    if (!mutex.CatchMutexFor(kLongestWaitInHandler)) {
        if (was_helped(mark))
            return 1;
        Mem_PagerLog::HandlerFoundThePagerBusy();
        throw std::bad_alloc();
    }
    WindowUnixGuard lock(&mutex, std::adopt_lock);
    const bool cleared = clear_pagers(failed.reported) != 0;
    if (was_helped(mark) || cleared)
        return 1;
    report_exhaustion(failed);
    throw std::bad_alloc();
}

unsigned long long MEM_MemPager::clear_pagers(bool reported)
{
    const int mask = pagers_to_clear();
    unsigned long long freed = 0;
    if ((mask & 2) != 0)
        freed += clear_for_handler(s_general.Living(), reported);
    if ((mask & 1) != 0)
        freed += clear_for_handler((s_single_handle ? s_general : s_second).Living(), reported);
    if (freed != 0)
        Mem_PagerLog::HandlerHasHelped();
    return freed;
}

// A pager that doesn't exist yet has nothing to clear, and this is no time to make one.
unsigned long long MEM_MemPager::clear_for_handler(MEM_MemPager* pager, bool reported)
{
    const unsigned long long freed = pager != nullptr ? pager->ClearCache() : 0;
    if (freed != 0)
        Mem_PagerLog::HandlerFreed(freed);
    else if (!reported)
        Mem_PagerLog::HandlerFoundNoCache();
    return freed;
}

/// An allocation that throws is reported as the end, since most hosts don't expect it; one that
/// answers null the host may well survive. Where malloc is hooked, operator new fails behind it:
/// then the report has been written.
void MEM_MemPager::report_exhaustion(const Mem_FailedAllocation& failed)
{
    constexpr char function[] = "clear_cache_handler";
    static Mem_Repeats repeats[2];
    Refuse(Mem_Reason::Operation::HostAllocation, Mem_Reason::Limit::Memory, "", failed.size);
    Mem_Repeats& reports = repeats[failed.throws ? 1 : 0];
    if (!reports.IsNews(0))
        return;
    reports.TellCount(function);
    if (failed.throws)
        Mem_PagerLog::AllocationIsRefused(failed.size);
    else
        Mem_PagerLog::AllocationAnswersNull(failed.size);
    if (!failed.reported)
        print_virtual_memory_status();
}

// Reports ---------------------------------------------------------------------------------------

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
    Mem_Mapped mapped[2];
    MEM_MemPager* const pagers[] = {(s_single_handle ? s_general : s_second).Living(),
                                    s_general.Living()};
    for (int i = 0; i < 2; ++i)
        if (pagers[i] != nullptr)
            mapped[i] = {pagers[i]->m_rooms->views.TotalMapped(),
                         pagers[i]->m_rooms->views.TotalCached()};
    ReportAddressSpace(mapped);
}
