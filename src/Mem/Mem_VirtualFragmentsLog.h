#ifndef MEM_VIRTUALFRAGMENTSLOG_H
#define MEM_VIRTUALFRAGMENTSLOG_H

#include <cstddef>

struct Mem_VirtualFragmentInfo;
struct Mem_FragmentsResize;

/// The log lines of Mem_VirtualFragmentsAllocator, by what has happened, so that its functions show
/// their story. All sizes are bytes. Nothing here allocates or throws.
namespace Mem_VirtualFragmentsLog
{

// `operator new` has failed in that function, although the cache was given up.
void MemoryIsExhausted(const char* function);

// Life.
void Initializing();
void InitializationFailed();
void Initialized();
void Destructing(size_t bytes);
void HadNothingToFree();
void FreedAll(size_t fragments);
void Destructed();

// Making and freeing fragments.
void Allocating(size_t count, size_t first, unsigned int full_size, unsigned int last_size);
void TriedFragment(unsigned int size, size_t fragment, size_t others);
void Allocated();
void AllocationFailed(size_t failed, size_t first, size_t count, unsigned int size);
void Freeing(size_t count, size_t first);
void Freed();

// Resize.
void Reallocating();
void TakingOver();
void TakenOver();
void ReallocationFailed(size_t old_bytes, size_t new_bytes);
void CarriedOver(const Mem_FragmentsResize& resize);
void PartialFragmentFailed(const Mem_FragmentsResize& resize);
void PartialFragmentIsReady();

// The copy of the one fragment that changes its size.
void Copying(unsigned int old_size, unsigned int new_size);
void TriedCopy(unsigned int size);
void CopyIsRefused(unsigned int new_size, const Mem_VirtualFragmentInfo& old_info);
void CopyIsAllocated();
void BytesAreCopied();
void Copied();
void Built(const Mem_FragmentsResize& resize);
void OldPartialIsFreed();

} // namespace Mem_VirtualFragmentsLog

#endif
