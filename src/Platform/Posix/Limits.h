#ifndef PLATFORM_POSIX_LIMITS_H
#define PLATFORM_POSIX_LIMITS_H

#include "Platform/MetLimits.h"

#include <cstdint>

// Which limit it was that an operation has met. Nothing here allocates, and errno stays as it is.

/// Remembers the limit that an error stands for by itself, if it does.
void MeetLimitOf(int error);

/// The same after a map of `size` bytes couldn't be had, with errno.
void MeetNoMap(std::uint64_t size);

/// The same after a file system was full, with errno: for a file of which `done` bytes were
/// reserved, `more` wanted, and they are given back; or for a new file at `path`.
void MeetNoRoom(int file, std::uint64_t done, std::uint64_t more);
void MeetNoNewFile(const char* path);

#endif
