#include "Zor/Zor_StackTrace.h"

#include "Platform/Process.h"

void Zor_StackTrace::TraceStack(std::FILE*, RWCString*, int, int) noexcept
{
    Platform::Process::Get().StackTrace();
}
