#include "Platform/CoarseTime.h"

#include <ctime>

std::uint64_t Platform::CoarseMilliseconds() noexcept
{
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &time);
    return static_cast<std::uint64_t>(time.tv_sec) * 1000 +
           static_cast<std::uint64_t>(time.tv_nsec) / 1000000 + 1;
}
