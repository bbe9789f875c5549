#ifndef PLATFORM_POSIX_DIAGNOSIS_H
#define PLATFORM_POSIX_DIAGNOSIS_H

#include <cstddef>
#include <cstdint>

// What a process without memory can still find out about itself. Nothing here allocates.

/// This process's address space in bytes: what its maps take, and the largest stretch that another
/// map could take, by the holes between them and by the limit. @return false if that isn't told.
bool ReadAddressSpace(std::uint64_t limit, std::uint64_t& used, std::uint64_t& largest_free);

/// Writes the system's name and version.
void WriteSystemName(char* text, std::size_t size);

/// Writes the name of this process's program.
void WriteProcessName(char* text, std::size_t size);

/// Writes the calls that led here to standard error, one a line.
void WriteStackTrace();

/// Bytes of a file; -1 if it can't be opened.
long long LengthOfFile(const char* path);

/// Cuts a plain file to nothing. @return false if that can't be done.
bool EmptyFile(const char* path);

#endif
