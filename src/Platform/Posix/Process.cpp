#include "Platform/Posix/Process.h"

#include "Platform/Posix/Fork.h"
#include "Platform/Posix/Paths.h"
#include "Platform/SystemPlatform.h"

#include <bit>

#include <pthread.h>
#include <unistd.h>

Platform::Process& Platform::SystemProcess()
{
    return OnlyOne<PosixProcess>();
}

long PosixProcess::ProcessId()
{
    return getpid();
}

long PosixProcess::ThreadId()
{
    return std::bit_cast<long>(pthread_self()); // a number here, an address elsewhere
}

std::uint64_t PosixProcess::RandomNumber()
{
    return UnforeseeableNumber();
}

void PosixProcess::CallUncancelled(void (*call)(void* argument), void* argument)
{
    const NoCancellation calm;
    call(argument);
}

/// They run until the very end.
bool PosixProcess::OthersHaveEnded()
{
    return false;
}
