#ifndef PLATFORM_POSIX_ADDRESSSPACE_H
#define PLATFORM_POSIX_ADDRESSSPACE_H

#include <cstdint>

// What the maps of this process tell. Nothing here allocates.

/// Above it lies the kernel.
inline constexpr std::uint64_t EndOfAddresses = std::uint64_t{1} << 47;

/// How many maps this process has.
std::uint64_t CountMaps();

/// How many it may have; 0 if that isn't known.
std::uint64_t MostMaps();

#endif
