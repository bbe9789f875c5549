#ifndef PLATFORM_POSIX_ADDRESSSPACE_H
#define PLATFORM_POSIX_ADDRESSSPACE_H

#include "Platform/Platform.h"

#include <cstdint>

struct SharedMapping;

// What the maps of this process tell. Nothing here allocates.

/// This process's address space in bytes: what its maps take, and the largest stretch that another
/// map could take, by the holes between them and by the limit. @return false if that isn't told.
bool ReadAddressSpace(std::uint64_t limit, std::uint64_t& used, std::uint64_t& largest_free);

/// Gives out all maps; those of the `mappings`, a list, are told apart. One thread at a time, and
/// none changes the list meanwhile. @return false if the maps can't be read.
bool ListMaps(SharedMapping* mappings, Platform::Stretches& stretches);

/// How many maps this process has.
std::uint64_t CountMaps();

/// How many it may have; 0 if that isn't told.
std::uint64_t MostMaps();

#endif
