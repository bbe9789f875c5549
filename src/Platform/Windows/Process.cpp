#include "Platform/Windows/Process.h"

#include "Platform/SystemPlatform.h"
#include "Platform/Windows/Ending.h"
#include "Platform/Windows/Scoped.h"

/// The system's generator, which has no other name in its headers.
extern "C" BOOLEAN NTAPI SystemFunction036(void* bytes, ULONG size);

Platform::Process& Platform::SystemProcess()
{
    return OnlyOne<WindowsProcess>();
}

long WindowsProcess::ProcessId()
{
    return static_cast<long>(GetCurrentProcessId());
}

long WindowsProcess::ThreadId()
{
    return static_cast<long>(GetCurrentThreadId());
}

std::uint64_t WindowsProcess::RandomNumber()
{
    std::uint64_t number = 0;
    if (SystemFunction036(&number, sizeof number))
        return number;
    LARGE_INTEGER ticks;
    QueryPerformanceCounter(&ticks);
    return static_cast<std::uint64_t>(ticks.QuadPart) << 20 ^ GetCurrentProcessId();
}

/// There is no cancellation.
void WindowsProcess::CallUncancelled(void (*call)(void* argument), void* argument)
{
    call(argument);
}

/// This system has no fork.
bool WindowsProcess::OnFork(void (*)(), void (*)(), void (*)())
{
    return true;
}

bool WindowsProcess::OthersHaveEnded()
{
    return OtherThreadsHaveEnded();
}
