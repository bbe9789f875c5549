#ifndef PLATFORM_POSIX_LIMITS_H
#define PLATFORM_POSIX_LIMITS_H

#include <cstddef>
#include <cstdint>

/// What can stand in the way of a mapping or a view.
enum class Limit {
    SharedMemory,
    SharedMemoryFiles,
    Disk,
    DiskFiles,
    Quota,
    Group,
    Machine,
    Commitment,
    AddressSpace,
    Maps,
    FileSize,
    Descriptors,
    OpenFiles
};
inline constexpr int LimitCount = 13;

// Each thread keeps the limits that its present operation has met, there where they are met: later
// the numbers would be others. There can be two, as where shared memory is full and the disk too.
// Nothing here allocates, and errno stays as it is.

/// Begins an operation.
void ForgetLimits();

/// Remembers a limit: how much it is, and how much of that was left before this operation.
void MeetLimit(Limit limit, std::uint64_t most, std::uint64_t left);

/// Remembers the limit that an error stands for by itself, if it does.
void MeetLimitOf(int error);

/// The same after a map of `size` bytes couldn't be had, with errno.
void MeetNoMap(std::uint64_t size);

/// The same after a file system had no room, with errno: for a file of which `done` bytes were
/// reserved, `more` wanted, and they are given back; or for a new file at `path`.
void MeetNoRoom(int file, std::uint64_t done, std::uint64_t more);
void MeetNoNewFile(const char* path);

/// Writes the limits that this thread remembers. @return a number that stands for them; 0 for none.
std::uint32_t TellLimits(char* text, std::size_t size);

#endif
