#ifndef MEM_REPORTS_H
#define MEM_REPORTS_H

#include <span>

class Mem_BlockTable;
class ShmmHeap;

// What a pager tells of itself, mostly as the last words of a process whose memory is gone: lines
// in the log and records in the file mem_dump.log of the log's folder. What is noexcept allocates
// nothing; what it can't say for want of memory is left out, after a line that says so.
// Threads: the caller holds the pager's mutex.

/// What a pager has mapped, in bytes.
struct Mem_Mapped {
    unsigned long long total = 0;
    unsigned long long cached = 0; ///< of those, in the cache
    unsigned long long huge = 0;   ///< of those, mapped by huge pages; 0 where nobody asked
};

/// Tells what is in use of shared memory, in a record with each block and chunk of the heap too.
void ReportSharedMemory(ShmmHeap& heap, Mem_Mapped mapped) noexcept;

/// Tells what is taken of the address space, and by which pager, if it has anything mapped.
void ReportAddressSpace(std::span<const Mem_Mapped> pagers) noexcept;

/// Writes the totals and the heap's blocks and chunks to standard output. Throws what that throws.
void PrintStatus(ShmmHeap& heap, Mem_Mapped mapped);

/// Logs each block, and each id whose block is gone, at level 2.
void LogBlocks(const Mem_BlockTable& blocks);

/// The short form for an allocation that is none of a pager's: lines in the name of `function` and
/// of the source file `source`, and the calls that led here.
void ReportAddressSpaceOf(const char* source, const char* function) noexcept;

#endif
