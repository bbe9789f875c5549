#ifndef ZOR_ZOR_MEMORYDETAILS_H
#define ZOR_ZOR_MEMORYDETAILS_H

struct Zor_ProcessMemoryInfo;

/// Appends to the file `path`, for people and in one piece, the numbers of `info` and what takes
/// the address space: this library's regions in sums, and the largest stretches of everything else.
/// A file that can't be written to is left out. Allocates nothing.
void AppendMemoryDetails(const char* path, const Zor_ProcessMemoryInfo& info);

#endif
