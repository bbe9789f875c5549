#ifndef PLATFORM_WINDOWS_LIMITS_H
#define PLATFORM_WINDOWS_LIMITS_H

#include "Platform/MetLimits.h"

// Which limit it was that an operation has met, by the cause that it has kept. Nothing here
// allocates.

/// After `size` bytes of the paging file couldn't be had.
void MeetNoCommitment(std::uint64_t size);

/// After a file at `path`, or a mapping of it, couldn't be made.
void MeetNoRoom(const char* path);

/// After a view of `size` bytes couldn't be had.
void MeetNoAddresses(std::uint64_t size);

#endif
