#ifndef MEM_MEMFRAGMENTSLOG_H
#define MEM_MEMFRAGMENTSLOG_H

#include <cstddef>

struct Mem_MemFragmentInfo;
struct Mem_FragmentsResize;

/// The log lines of Mem_MemFragmentsAllocator, by what has happened, so that its functions show
/// their story. All sizes are bytes. Nothing here allocates or throws.
namespace Mem_MemFragmentsLog
{

// Life.
void Initializing();
void InitializationFailed(size_t fragments, size_t bytes);
void Initialized();
void Destructing(size_t bytes);
void HadNothingToFree();
void FreedAll(size_t fragments);
void Destructed();

// Making and freeing fragments.
void Allocating(size_t count, size_t first, unsigned int full_size, unsigned int last_size,
                size_t mapped);
void NewFragmentStaysMapped(size_t fragment, size_t first, size_t count, unsigned int size);
void Allocated();
void AllocationFailed(size_t failed, size_t first, size_t count, unsigned int size);
void AllocationIsUndone();
void Freeing(size_t count, size_t first);
void FreeFailed(size_t fragment, size_t count);
void Freed();

// Access to a byte.
void LooksFor(size_t index);
void BufferIsInvalid();
void NoFragmentHasTheIndex();
void FragmentIsFound(size_t fragment);
void FragmentIsServed(size_t fragment);
void IndexIsOutOfRange(size_t index, size_t bytes);
void IndexContradictsLayout(size_t index, size_t bytes, unsigned int fragment_size, size_t fragment,
                            const Mem_MemFragmentInfo& info);
void MappedSetLacksFragment(size_t index, size_t fragment);
void ReplacementFailed();

// One fragment takes another's place among the mapped ones.
void Replacing(size_t mapped_index, size_t old_fragment, size_t fragment);
void OldFragmentStaysMapped(size_t mapped_index);
void OldFragmentIsUnmapped();
void MapFailed(size_t fragment);
void Replaced();

// Resize.
void Reallocating();
void ReallocationFailed(size_t old_bytes, size_t new_bytes);
void LeavingFragmentStaysMapped(const Mem_MemFragmentInfo& info);
void LeavingFragmentsAreUnmapped();
void CarriedOver(int result, const Mem_FragmentsResize& resize);
void CarryingOverFailed(size_t fragment);
void PartialFragmentFailed(const Mem_FragmentsResize& resize);
void PartialFragmentIsReady();

// The copy of the one fragment that changes its size.
void Copying(unsigned int old_size, unsigned int new_size);
void CopyIsRefused(unsigned int new_size, const Mem_MemFragmentInfo& old_info);
void BothAreMapped();
void BytesAreCopied();
void Copied();
void OriginalCantBeMapped(unsigned int old_size, const Mem_MemFragmentInfo& old_info);
void CopyCantBeFreed();
void CopyStaysMapped(const Mem_MemFragmentInfo& old_info);

// The new list is whole; the old one goes.
void Built(const Mem_FragmentsResize& resize);
void OldPartialCantBeFreed(const Mem_MemFragmentInfo& info);
void OldPartialIsFreed();
void TakingOver();
void TakenOver();

// After a failed resize: the fragments named in the mapped set are mapped again.
void RevertingFailed();
void MappingTheNamed();
void NamedAreOfAnInvalidBuffer();
void NamedCantBeMapped(size_t mapped_index, size_t fragment);
void NamedAreMapped();

} // namespace Mem_MemFragmentsLog

#endif
