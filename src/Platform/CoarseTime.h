#ifndef PLATFORM_COARSETIME_H
#define PLATFORM_COARSETIME_H

#include <cstdint>

namespace Platform
{

/// Milliseconds since some fixed time, never 0 and never less than before, by the clock that costs
/// least: it moves every 1 to 16 of them. Threads: any. Can't fail.
std::uint64_t CoarseMilliseconds() noexcept;

} // namespace Platform

#endif
