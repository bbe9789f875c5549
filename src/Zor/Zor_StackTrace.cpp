#include "Zor/Zor_StackTrace.h"

#include "Platform/Platform.h"

void Zor_StackTrace::TraceStack(std::FILE*, RWCString*, int, int) noexcept
{
    Platform::Get().StackTrace();
}
