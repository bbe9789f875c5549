#include "Platform/AllocationFailure.h"

#include "Platform/Posix/AllocationFailure.h"
#include "Platform/Posix/Process.h"
#include "Platform/Posix/Scoped.h"
#include "Platform/Posix/TimeZone.h"

#include <new>

#include <execinfo.h>

namespace
{

bool help_new() noexcept
{
    const NoCancellation calm;
    return HelpNew();
}

void on_new_failure()
{
    if (!help_new())
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
    SetAllocationHandler(handler);
    std::set_new_handler(on_new_failure);
}

bool ReclaimForMalloc(std::size_t size) noexcept
{
    const KeepErrno keep;
    const NoCancellation calm;
    return HelpMalloc(size);
}
