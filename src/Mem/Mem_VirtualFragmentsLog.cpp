#include "Mem/Mem_VirtualFragmentsLog.h"

#include "Mem/Mem_FragmentsResize.h"
#include "Mem/Mem_VirtualFragmentsAllocator.h"
#include "NRVlog/Zor_Log.h"
#include "Platform/Units.h"

namespace Mem_VirtualFragmentsLog
{

namespace
{
constexpr char zor_log_source[] = "src/Mem/Mem_VirtualFragmentsAllocator";
constexpr char kCreate[] = "Mem_VirtualFragmentsAllocator::Mem_VirtualFragmentsAllocator";
constexpr char kDestroy[] = "Mem_VirtualFragmentsAllocator::~Mem_VirtualFragmentsAllocator";
constexpr char kAllocate[] = "Mem_VirtualFragmentsAllocator::allocate_fragments";
constexpr char kFree[] = "Mem_VirtualFragmentsAllocator::free_fragments";
constexpr char kReallocate[] = "Mem_VirtualFragmentsAllocator::reallocate_fragments";
constexpr char kCopy[] = "Mem_VirtualFragmentsAllocator::allocate_and_copy_fragment";
} // namespace

void MemoryIsExhausted(const char* function)
{
    ZOR_LOG(function, 3,
            "Couldn't Allocate a memory fragment, probably because process is out of memory! "
            "(Details: operator new failed for regular virtual memory)\n");
    ZOR_LOG(function, 3,
            "Either a memory leak occurred, or too much memory is allocated. See details below:\n");
}

void Initializing()
{
    ZOR_LOG(kCreate, 6, "Initializing virtual fragments..\n");
}

void InitializationFailed()
{
    ZOR_LOG(kCreate, 5,
            "Mem_VirtualFragmentsAllocator: Failed allocating fragments. Allocator is NOT "
            "valid..\n");
}

void Initialized()
{
    ZOR_LOG(kCreate, 6, "Mem_VirtualFragmentsAllocator C-tor finished successfully.\n");
}

void Destructing(size_t bytes)
{
    ZOR_LOG(kDestroy, 5,
            "~Mem_FragmentsAllocator: Destructing the Mem_FragmentsAllocator: size=<%IuMB>\n",
            WholeMb(bytes));
}

void HadNothingToFree()
{
    ZOR_LOG(kDestroy, 5,
            "~Mem_FragmentsAllocator: BufAllocator is invalid, no need to destroy..\n");
}

void FreedAll(size_t fragments)
{
    ZOR_LOG(kDestroy, 6, "~Mem_FragmentsAllocator: Freed %Iu fragments successfully\n", fragments);
}

void Destructed()
{
    ZOR_LOG(kDestroy, 6, "~Mem_FragmentsAllocator: Finished!\n");
}

void Allocating(size_t count, size_t first, unsigned int full_size, unsigned int last_size)
{
    ZOR_LOG(kAllocate, 6,
            "allocate_fragments: Allocating %Iu fragments from index %Iu. FragmentSize=%u, "
            "LastFragmentSize=%u\n",
            count, first, full_size, last_size);
}

void TriedFragment(unsigned int size, size_t fragment, size_t others)
{
    ZOR_LOG(kAllocate, 3, "\tTried to allocate: %.2fMB (fragment %Iu out of %Iu fragments)\n",
            InMb(size), fragment, others);
}

void Allocated()
{
    ZOR_LOG(kAllocate, 6, "allocate_fragments: Finished allocating all fragments successfully!\n");
}

void AllocationFailed(size_t failed, size_t first, size_t count, unsigned int size)
{
    ZOR_LOG(kAllocate, 5,
            "allocate_fragments: Failed allocating fragment number %Iu, out of %Iu fragments. "
            "FragmentIndex=<%Iu>, FragmentSize=<%u>. Aborting\n",
            failed - first, count, failed, size);
    ZOR_LOG(kAllocate, 3,
            "allocate_fragments: Failed allocating fragments! Tried to allocate %Iu fragments from "
            "index %Iu, failed on index %Iu\n",
            count, first, failed);
}

void Freeing(size_t count, size_t first)
{
    ZOR_LOG(kFree, 6, "free_fragments: Freeing %Iu virtual fragments, starting from %Iu\n", count,
            first);
}

void Freed()
{
    ZOR_LOG(kFree, 6, "free_fragments: Done!\n");
}

void Reallocating()
{
    ZOR_LOG(kReallocate, 6, "Virtual reallocate_fragments Started..\n");
}

void TakingOver()
{
    ZOR_LOG(kReallocate, 6, "reallocate_fragments: Replacing old fragments..\n");
}

void TakenOver()
{
    ZOR_LOG(kReallocate, 6, "reallocate_fragments: New reallocated fragments are ready\n");
}

void ReallocationFailed(size_t old_bytes, size_t new_bytes)
{
    ZOR_LOG(kReallocate, 3,
            "reallocate_fragments: An error occurred while trying to reallocate the Virtual "
            "Buffer!OriginalBufferSize=<%.2fMB>, NewBufferSize=<%.2fMB>\n",
            InMb(old_bytes), InMb(new_bytes));
}

void CarriedOver(const Mem_FragmentsResize& resize)
{
    ZOR_LOG(kReallocate, 6,
            "reallocate_fragments: Finished copying unchanged fragments (OldFragments=<%Iu>, "
            "NewFragments=<%Iu>, IsPartial=<%d>)\n",
            resize.OldWhole(), resize.NewWhole(), resize.is_partial ? 1 : 0);
}

void PartialFragmentFailed(const Mem_FragmentsResize& resize)
{
    ZOR_LOG(kReallocate, 3,
            "reallocate_fragments: Failed on allocating a new fragment with size <%d> for the "
            "partial fragment <%d>\n",
            static_cast<int>(resize.NewPartialSize()), static_cast<int>(resize.Unchanged()));
}

void PartialFragmentIsReady()
{
    ZOR_LOG(kReallocate, 6, "reallocate_fragments: Finished handling partial fragment\n");
}

void Copying(unsigned int old_size, unsigned int new_size)
{
    ZOR_LOG(kCopy, 6,
            "allocate_and_copy_fragment: Copying OldFragment (size=%d) to NewFragment "
            "(size=%d):\n",
            static_cast<int>(old_size), static_cast<int>(new_size));
}

void TriedCopy(unsigned int size)
{
    ZOR_LOG(kCopy, 3, "\tTried to allocate: %.2fMB\n", InMb(size));
}

void CopyIsRefused(unsigned int new_size, const Mem_VirtualFragmentInfo& old_info)
{
    ZOR_LOG(kCopy, 5,
            "reallocate_fragment: Allocate has failed for new fragment: FragmentSize=%u, "
            "StartIndex=%Iu, EndIndex=%Iu\n",
            new_size, old_info.IndexStart, old_info.IndexEnd);
}

void CopyIsAllocated()
{
    ZOR_LOG(kCopy, 6,
            "allocate_and_copy_fragment: new fragment allocation succeeded. copying data..\n");
}

void BytesAreCopied()
{
    ZOR_LOG(kCopy, 6, "allocate_and_copy_fragment: Finished copying data\n");
}

void Copied()
{
    ZOR_LOG(kCopy, 6,
            "allocate_and_copy_fragment: Successfully copied old fragment to new fragment:\n");
}

void Built(const Mem_FragmentsResize& resize)
{
    ZOR_LOG(kReallocate, 6,
            "reallocate_fragments: Finished successfully creating the new buffer. "
            "IsPartialFragment=<%s>\n",
            resize.is_partial ? "TRUE" : "FALSE");
}

void OldPartialIsFreed()
{
    ZOR_LOG(kReallocate, 6, "reallocate_fragments: Succeeded freeing the %s fragment\n", "old");
}

} // namespace Mem_VirtualFragmentsLog
