#include "Platform/CoarseTime.h"

#include "Platform/Windows/System.h"

std::uint64_t Platform::CoarseMilliseconds() noexcept
{
    return GetTickCount64() + 1;
}
