#ifndef PLATFORM_POSIX_ALLOCATIONFAILURE_H
#define PLATFORM_POSIX_ALLOCATIONFAILURE_H

#include <cstddef>

/// Asks the handler for help after malloc, or one of its kin, has failed for `size` bytes.
/// @return whether another try is worth it. Keeps errno.
bool ReclaimForMalloc(std::size_t size) noexcept;

/// Whether calls of malloc in this process come by this library.
bool MallocComesByHere() noexcept;

/// Whether this build could hook malloc.
bool MallocHookIsBuilt() noexcept;

#endif
