#ifndef PLATFORM_POSIX_RESERVE_H
#define PLATFORM_POSIX_RESERVE_H

#include <cstdint>

/// Makes a file `size` bytes long, zeros, all of them there: a full file system is an error here,
/// and at a later touch it would be a signal. Memory that the process's group or the machine
/// can't spare is an error as well (ENOMEM), where the system by itself would kill.
/// @return false with errno and the limit remembered, possibly with a part of it reserved.
bool Reserve(int file, std::uint64_t size);

/// Whether a file may be `size` bytes long, by the limit that is set on this process.
/// @return false with errno.
bool FitsFileLimit(std::uint64_t size);

/// Whether the folder is on a disk, not in memory. @return false also if that can't be known.
bool LiesOnDisk(const char* folder);

#endif
