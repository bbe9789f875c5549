#include "Platform/Posix/AllocationFailure.h"

#include "Platform/Posix/Process.h"
#include "Platform/Posix/Scoped.h"
#include "Platform/Posix/TimeZone.h"

#include <atomic>
#include <cstdint>
#include <new>
#include <utility>

#include <execinfo.h>

namespace
{

using AllocationHandler = Platform::Process::AllocationHandler;

constinit std::atomic<AllocationHandler> allocation_handler{nullptr};

/// What is going on in a thread that ran out of memory. The model keeps the first touch in a
/// thread from allocating.
struct Trouble {
    bool inside = false;    ///< in the handler
    bool reported = false;  ///< malloc's failure was told; operator new may be about to follow
    std::size_t size = 0;   ///< what malloc was asked for then
    std::uint64_t mark = 0; ///< the handler's
};
[[gnu::tls_model("initial-exec")]] constinit thread_local Trouble trouble;

bool ask_handler(std::size_t size, bool throws, bool reported) noexcept
{
    const AllocationHandler handler = allocation_handler.load(std::memory_order_acquire);
    if (handler == nullptr || trouble.inside)
        return false;
    const NoCancellation calm; // malloc and its kin let nothing out
    trouble.inside = true;
    bool again = false;
    try {
        again = handler({size, throws, reported, trouble.mark}) != 0;
    } catch (...) {
        again = false; // it gave up, as std::bad_alloc tells
    }
    trouble.inside = false;
    return again;
}

/// operator new asks malloc, so where malloc is hooked this is the second time that the same
/// failure comes by.
void on_new_failure()
{
    const bool reported = std::exchange(trouble.reported, false);
    if (!ask_handler(std::exchange(trouble.size, 0), true, reported))
        throw std::bad_alloc();
}

/// Makes the first stack trace, and the first look at the time, possible without memory.
void prepare_last_words()
{
    void* call;
    backtrace(&call, 1); // loads what it needs
    RememberTimeZone();
}

} // namespace

void PosixProcess::OnAllocationFailure(AllocationHandler handler)
{
    const NoCancellation calm;
    prepare_last_words(); // for the time when that handler reports
    allocation_handler.store(handler, std::memory_order_release);
    std::set_new_handler(on_new_failure);
}

bool ReclaimForMalloc(std::size_t size) noexcept
{
    const KeepErrno keep;
    if (ask_handler(size, false, false))
        return true;
    trouble.reported = !trouble.inside && allocation_handler.load(std::memory_order_relaxed);
    trouble.size = size;
    return false;
}
