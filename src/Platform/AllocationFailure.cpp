#include "Platform/AllocationFailure.h"

#include "Platform/PerThread.h"

#include <atomic>
#include <utility>

namespace
{

using AllocationHandler = Platform::Process::AllocationHandler;

constinit std::atomic<AllocationHandler> allocation_handler{nullptr};

/// What is going on in a thread that ran out of memory.
struct Trouble {
    bool inside = false;    ///< in the handler
    bool reported = false;  ///< malloc's failure was reported; operator new may be about to follow
    std::size_t size = 0;   ///< what malloc was asked for then
    std::uint64_t mark = 0; ///< the handler's
};
PLATFORM_PER_THREAD PerThread<Trouble> trouble{{}};

/// malloc never throws, so an exception of the handler's ends here.
bool ask_handler(std::size_t size, bool throws, bool reported) noexcept
{
    const AllocationHandler handler = allocation_handler.load(std::memory_order_acquire);
    if (handler == nullptr || trouble->inside)
        return false;
    trouble->inside = true;
    bool again = false;
    try {
        again = handler({size, throws, reported, trouble->mark}) != 0;
    } catch (...) {
        again = false; // it gave up, as std::bad_alloc tells
    }
    trouble->inside = false;
    return again;
}

} // namespace

void SetAllocationHandler(AllocationHandler handler)
{
    allocation_handler.store(handler, std::memory_order_release);
}

bool HelpMalloc(std::size_t size) noexcept
{
    if (ask_handler(size, false, false))
        return true;
    trouble->reported = !trouble->inside && allocation_handler.load(std::memory_order_relaxed);
    trouble->size = size;
    return false;
}

bool HelpNew() noexcept
{
    const bool reported = std::exchange(trouble->reported, false);
    return ask_handler(std::exchange(trouble->size, 0), true, reported);
}
