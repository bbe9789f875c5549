#ifndef PLATFORM_POSIX_LIMITS_H
#define PLATFORM_POSIX_LIMITS_H

#include "Platform/Subject.h"

#include <cstdint>

// Each thread keeps the limits that its present operation has met, there where they are met: later
// the numbers would be others. There can be two, as where shared memory is full and the disk too.
// Nothing here allocates, and errno stays as it is.

/// Begins an operation.
void ForgetLimits();

/// Remembers a limit: how much it is, and how much of that was left before this operation.
void MeetLimit(Platform::Subject limit, std::uint64_t most, std::uint64_t left);

/// Remembers the limit that an error stands for by itself, if it does.
void MeetLimitOf(int error);

/// The same after a map of `size` bytes couldn't be had, with errno.
void MeetNoMap(std::uint64_t size);

/// The same after a file system was full, with errno: for a file of which `done` bytes were
/// reserved, `more` wanted, and they are given back; or for a new file at `path`.
void MeetNoRoom(int file, std::uint64_t done, std::uint64_t more);
void MeetNoNewFile(const char* path);

#endif
