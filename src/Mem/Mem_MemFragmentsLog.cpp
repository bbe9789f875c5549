#include "Mem/Mem_MemFragmentsLog.h"

#include "Mem/Mem_FragmentsResize.h"
#include "Mem/Mem_MemFragmentsAllocator.h"
#include "NRVlog/Zor_Log.h"
#include "Platform/Units.h"

namespace Mem_MemFragmentsLog
{

namespace
{
constexpr char zor_log_source[] = "src/Mem/Mem_MemFragmentsAllocator";
constexpr char kCreate[] = "Mem_MemFragmentsAllocator::Mem_MemFragmentsAllocator";
constexpr char kDestroy[] = "Mem_MemFragmentsAllocator::~Mem_MemFragmentsAllocator";
constexpr char kAllocate[] = "Mem_MemFragmentsAllocator::allocate_fragments";
constexpr char kFree[] = "Mem_MemFragmentsAllocator::free_fragments";
constexpr char kFind[] = "Mem_MemFragmentsAllocator::find_in_other_fragments";
constexpr char kGet[] = "Mem_MemFragmentsAllocator::get_fragment";
constexpr char kReplace[] = "Mem_MemFragmentsAllocator::replace_mapped_fragment";
constexpr char kReallocate[] = "Mem_MemFragmentsAllocator::reallocate_fragments";
constexpr char kCopy[] = "Mem_MemFragmentsAllocator::allocate_and_copy_fragment";
constexpr char kValidate[] = "Mem_MemFragmentsAllocator::validate_mapped_indexes";
} // namespace

void Initializing()
{
    ZOR_LOG(kCreate, 6, "Initializing MEM fragments..\n");
}

void InitializationFailed(size_t fragments, size_t bytes)
{
    ZOR_LOG(kCreate, 3,
            "Failed allocating MEM Fragments! (Tried to allocated %Iu fragments, with total "
            "size of <%Iu bytes>)\n",
            fragments, bytes);
}

void Initialized()
{
    ZOR_LOG(kCreate, 6, "Mem_MemFragmentsAllocator C-tor Done.\n");
}

void Destructing(size_t bytes)
{
    ZOR_LOG(kDestroy, 5,
            "~Mem_MemFragmentsAllocator: Destructing the Mem_FragmentsAllocator: size=<%d>\n",
            static_cast<int>(WholeMb(bytes)));
}

void HadNothingToFree()
{
    ZOR_LOG(kDestroy, 5,
            "~Mem_MemFragmentsAllocator: BufAllocator is invalid, no need to destroy..\n");
}

void FreedAll(size_t fragments)
{
    ZOR_LOG(kDestroy, 6, "~Mem_MemFragmentsAllocator: Freed %Iu fragments successfully\n",
            fragments);
}

void Destructed()
{
    ZOR_LOG(kDestroy, 6, "~Mem_MemFragmentsAllocator: Finished!\n");
}

void Allocating(size_t count, size_t first, unsigned int full_size, unsigned int last_size,
                size_t mapped)
{
    ZOR_LOG(kAllocate, 6,
            "allocate_fragments: Allocating %Iu fragments from index %Iu. FragmentSize=%u, "
            "LastFragmentSize=%u, MappedFragments=%Iu\n",
            count, first, full_size, last_size, mapped);
}

void NewFragmentStaysMapped(size_t fragment, size_t first, size_t count, unsigned int size)
{
    ZOR_LOG(kAllocate, 5,
            "allocate_fragments: Failed unmapping fragment number %Iu out of %Iu "
            "fragments. FragmentIndex=<%Iu>, FragmentSize=<%u>. Ignoring..\n",
            fragment - first, count, fragment, size);
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

void AllocationIsUndone()
{
    ZOR_LOG(kAllocate, 6, "allocate_fragments: Aborted successfully\n");
}

void Freeing(size_t count, size_t first)
{
    ZOR_LOG(kFree, 6, "free_fragments: Freeing %d fragments, starting from %d",
            static_cast<int>(count), static_cast<int>(first));
}

void FreeFailed(size_t fragment, size_t count)
{
    ZOR_LOG(kFree, 5,
            "free_fragments: Free failed, memory leak might have "
            "occurred...FragmentIndex=%Iu, FragmentsNum=%Iu\n",
            fragment, count);
}

void Freed()
{
    ZOR_LOG(kFree, 6, "free_fragments: Done!\n");
}

void LooksFor(size_t index)
{
    ZOR_LOG(kFind, 6, "find_in_other_fragments: index=<%Iu>\n", index);
}

void BufferIsInvalid()
{
    ZOR_LOG(kFind, 3,
            "find_in_other_fragments: The FragmentsAllocator is invalid! Returning NULL...\n");
}

void NoFragmentHasTheIndex()
{
    ZOR_LOG(kFind, 3, "find_in_other_fragments: get_fragment failed! Returning NULL...\n");
}

void FragmentIsFound(size_t fragment)
{
    ZOR_LOG(kFind, 7, "find_in_other_fragments: The required fragment index is: <%Iu>\n", fragment);
}

void FragmentIsServed(size_t fragment)
{
    ZOR_LOG(kFind, 6, "find_in_other_fragments: Done! Returning a pointer from fragment <%Iu>\n",
            fragment);
}

void IndexIsOutOfRange(size_t index, size_t bytes)
{
    ZOR_LOG(kGet, 3, "get_fragment: Index <%Iu> is not in buffer range: <%Iu>!\n", index, bytes);
}

void IndexContradictsLayout(size_t index, size_t bytes, unsigned int fragment_size, size_t fragment,
                            const Mem_MemFragmentInfo& info)
{
    ZOR_LOG(kGet, 3,
            "get_fragment: Inconsistency with indexes! Index=<%Iu>, TotalBuffSize=<%Iu>, "
            "fragmentSize=<%u>, FragmentIndex=<%u>, IndexStart=<%Iu>, IndexEnd=<%Iu>\n",
            index, bytes, fragment_size, static_cast<unsigned int>(fragment), info.IndexStart,
            info.IndexEnd);
}

void MappedSetLacksFragment(size_t index, size_t fragment)
{
    ZOR_LOG(kFind, 3,
            "find_in_other_fragments: Inconsistency between isMapped to mapped array! "
            "_index=<%Iu>, required_fragment=<%Iu>\n",
            index, fragment);
}

void ReplacementFailed()
{
    ZOR_LOG(kFind, 3, "find_in_other_fragments: Couldn't replace with unmapped fragment!\n");
}

void Replacing(size_t mapped_index, size_t old_fragment, size_t fragment)
{
    ZOR_LOG(kReplace, 6,
            "replace_mapped_fragment: Replacing mapped index <%Iu> (to fragment %Iu) with unmapped "
            "fragment <%Iu>\n",
            mapped_index, old_fragment, fragment);
}

void OldFragmentStaysMapped(size_t mapped_index)
{
    ZOR_LOG(kReplace, 3, "replace_mapped_fragment: Couldn't unmap at index <%Iu>\n", mapped_index);
}

void OldFragmentIsUnmapped()
{
    ZOR_LOG(kReplace, 7,
            "replace_mapped_fragment: Unmapped old fragment successfully, now mapping new "
            "fragment...\n");
}

void MapFailed(size_t fragment)
{
    ZOR_LOG(kReplace, 3, "replace_mapped_fragment: Couldn't map the page at index <%Iu>\n",
            fragment);
}

void Replaced()
{
    ZOR_LOG(kReplace, 6, "replace_mapped_fragment: Replaced mapped fragment successfully\n");
}

void Reallocating()
{
    ZOR_LOG(kReallocate, 6, "Mem reallocate_fragments Started..\n");
}

void ReallocationFailed(size_t old_bytes, size_t new_bytes)
{
    ZOR_LOG(kReallocate, 3,
            "Reallocate: An error occurred while trying to reallocate the Mem "
            "Buffer!OriginalBufferSize=<%.2fMB>, NewBufferSize=<%.2fMB>\n",
            InMb(old_bytes), InMb(new_bytes));
}

void LeavingFragmentStaysMapped(const Mem_MemFragmentInfo& info)
{
    ZOR_LOG(kReallocate, 5,
            "Reallocate: Unmap failed, memory leak might have occurred. "
            "FragmentStartIndex=%Iu, FragmentEndIndex=%Iu\n",
            info.IndexStart, info.IndexEnd);
}

void LeavingFragmentsAreUnmapped()
{
    ZOR_LOG(kReallocate, 6, "Reallocate: Unmapped all mapped fragments\n");
}

void CarriedOver(int result, const Mem_FragmentsResize& resize)
{
    ZOR_LOG(kReallocate, 6,
            "Reallocate: Finished copying unchanged fragments (Result=<%s>, OldFragments=<%Iu>, "
            "NewFragments=<%Iu>, IsPartial=<%d>)\n",
            result == 0 ? "SUCCESS" : "FAILURE", resize.OldWhole(), resize.NewWhole(),
            resize.is_partial ? 1 : 0);
}

void CarryingOverFailed(size_t fragment)
{
    ZOR_LOG(kReallocate, 3, "Reallocate: Failed on mapping copied fragment %d..\n",
            static_cast<int>(fragment));
}

void PartialFragmentFailed(const Mem_FragmentsResize& resize)
{
    ZOR_LOG(kReallocate, 3,
            "Reallocate: Failed on allocating a new fragment with size <%d> for the partial "
            "fragment <%d>\n",
            static_cast<int>(resize.NewPartialSize()), static_cast<int>(resize.Unchanged()));
}

void PartialFragmentIsReady()
{
    ZOR_LOG(kReallocate, 6, "Reallocate: Finished handling partial fragment\n");
}

void Copying(unsigned int old_size, unsigned int new_size)
{
    ZOR_LOG(kCopy, 6,
            "allocate_and_copy_fragment: Copying OldFragment (size=%d) to NewFragment "
            "(size=%d):\n",
            static_cast<int>(old_size), static_cast<int>(new_size));
}

void CopyIsRefused(unsigned int new_size, const Mem_MemFragmentInfo& old_info)
{
    ZOR_LOG(kCopy, 5,
            "reallocate_fragment: Allocate has failed for new fragment: FragmentSize=%u, "
            "StartIndex=%Iu, EndIndex=%Iu\n",
            new_size, old_info.IndexStart, old_info.IndexEnd);
}

void BothAreMapped()
{
    ZOR_LOG(kCopy, 6, "allocate_and_copy_fragment: Both fragments are mapped, copying data..\n");
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

void OriginalCantBeMapped(unsigned int old_size, const Mem_MemFragmentInfo& old_info)
{
    ZOR_LOG(kCopy, 5,
            "reallocate_fragment: Map has failed for original fragment: FragmentSize=%u, "
            "StartIndex=%Iu, EndIndex=%Iu\n",
            old_size, old_info.IndexStart, old_info.IndexEnd);
}

void CopyCantBeFreed()
{
    ZOR_LOG(kCopy, 5, "reallocate_fragment: Couldn't free new fragment...\n");
}

void CopyStaysMapped(const Mem_MemFragmentInfo& old_info)
{
    ZOR_LOG(kCopy, 5,
            "reallocate_fragment: Unmap failed, memory leak might have occurred... "
            "FragmentStartIndex=%Iu, FragmentEndIndex=%Iu\n",
            old_info.IndexStart, old_info.IndexEnd);
}

void Built(const Mem_FragmentsResize& resize)
{
    ZOR_LOG(kReallocate, 6,
            "Reallocate: Finished successfully creating the new buffer. IsPartialFragment=<%s>\n",
            resize.is_partial ? "TRUE" : "FALSE");
}

void OldPartialCantBeFreed(const Mem_MemFragmentInfo& info)
{
    ZOR_LOG(kReallocate, 5,
            "Reallocate: Free failed, memory leak might have occurred... "
            "FragmentStartIndex=%Iu, FragmentEndIndex=%Iu\n",
            info.IndexStart, info.IndexEnd);
}

void OldPartialIsFreed()
{
    ZOR_LOG(kReallocate, 6, "Reallocate: Succeeded freeing the %s fragment\n", "old");
}

void TakingOver()
{
    ZOR_LOG(kReallocate, 6, "reallocate_fragments: Replacing old fragments..\n");
}

void TakenOver()
{
    ZOR_LOG(kReallocate, 6, "reallocate_fragments: New reallocated fragments are ready\n");
}

void RevertingFailed()
{
    ZOR_LOG(kReallocate, 3, "Reallocate: Failed reverting originally mapped fragments!\n");
}

void MappingTheNamed()
{
    ZOR_LOG(kValidate, 6, "validate_mapped_indexes: Mapping all the required fragments\n");
}

void NamedAreOfAnInvalidBuffer()
{
    ZOR_LOG(kValidate, 3, "validate_mapped_indexes: Tried to validate an invalid BufAllocator!\n");
}

void NamedCantBeMapped(size_t mapped_index, size_t fragment)
{
    ZOR_LOG(kValidate, 6, "validate_mapped_indexes: Failed mapping index %d (with fragment %d):",
            static_cast<int>(mapped_index), static_cast<int>(fragment));
}

void NamedAreMapped()
{
    ZOR_LOG(kValidate, 6, "validate_mapped_indexes: Succeeded mapping all fragments\n");
}

} // namespace Mem_MemFragmentsLog
