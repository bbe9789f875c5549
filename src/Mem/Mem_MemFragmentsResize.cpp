#include "Mem/Mem_FragmentsCounter.h"
#include "Mem/Mem_FragmentsResize.h"
#include "Mem/Mem_MappedFragments.h"
#include "Mem/Mem_MemFragmentsAllocator.h"
#include "Mem/Mem_MemFragmentsLog.h"
#include "Mem/Mem_MemPager.h"

#include <algorithm>
#include <cstring>

// The resize of Mem_MemFragmentsAllocator: the steps that Mem_FragmentsResize puts in order, and
// what mends the set of mapped fragments after one has failed.

namespace Log = Mem_MemFragmentsLog;

int Mem_MemFragmentsAllocator::reallocate_fragments(size_t new_fragments_num,
                                                    size_t new_total_buf_size,
                                                    unsigned int new_last_fragment_size,
                                                    bool is_partial)
{
    Log::Reallocating();
    Mem_FragmentsCounter(realloc_counter).Mark();
    const Mem_FragmentsResize resize{fragments_num,      new_fragments_num,      fragment_size,
                                     last_fragment_size, new_last_fragment_size, is_partial};
    const MappedIndexes old_indexes = mapped_indexes;
    unmap_what_leaves(resize);
    Mem_MemFragmentInfo* const infos = make_infos(new_fragments_num);
    if (resize.Build(*this, infos) == 0) {
        take_over(infos, new_fragments_num);
        Mem_MappedFragments::Check(*this, new_fragments_num, new_last_fragment_size);
        return 0;
    }
    Log::ReallocationFailed(total_buf_size, new_total_buf_size);
    mend_mapped_set(old_indexes, resize);
    revert_mapped_set();
    delete[] infos;
    Mem_MappedFragments::Check(*this, fragments_num, last_fragment_size);
    return -1;
}

// The old last fragment stays mapped where it is to be copied.
void Mem_MemFragmentsAllocator::unmap_what_leaves(const Mem_FragmentsResize& resize)
{
    const size_t tail_start = Mem_MappedFragments::TailStartOf(resize.new_num);
    const size_t keep_start =
        resize.is_partial ? std::min(tail_start, resize.old_num - 1) : tail_start;
    for (size_t i = 0; i < mapped_fragments_num; ++i) {
        const size_t fragment = mapped_indexes[i];
        if (fragment >= keep_start && fragment < resize.new_num)
            continue;
        Mem_MemFragmentInfo& info = fragments[fragment];
        if (info.pagerInfo.Unmap() == 0)
            info.isMapped = false;
        else
            Log::LeavingFragmentStaysMapped(info);
    }
    Log::LeavingFragmentsAreUnmapped();
}

Mem_MemFragmentInfo* Mem_MemFragmentsAllocator::make_infos(size_t count)
{
    try {
        return new Mem_MemFragmentInfo[count];
    } catch (...) {
        revert_mapped_set();
        throw;
    }
}

int Mem_MemFragmentsAllocator::carry_over(Mem_MemFragmentInfo* infos,
                                          const Mem_FragmentsResize& resize)
{
    const int result = carry_over_unchanged(infos, resize);
    Log::CarriedOver(result, resize);
    return result;
}

int Mem_MemFragmentsAllocator::carry_over_unchanged(Mem_MemFragmentInfo* infos,
                                                    const Mem_FragmentsResize& resize)
{
    const size_t tail_start = Mem_MappedFragments::TailStartOf(resize.new_num);
    size_t mapped_index = 0;
    for (size_t i = 0; i < resize.Unchanged(); ++i) {
        if (i >= tail_start) {
            if (!fragments[i].isMapped && fragments[i].pagerInfo.Map() != 0) {
                Log::CarryingOverFailed(i);
                return -1;
            }
            fragments[i].isMapped = true;
            mapped_indexes[mapped_index++] = i;
        }
        infos[i] = fragments[i]; // shares the piece, with a mapping of its own if it is mapped
    }
    return 0;
}

int Mem_MemFragmentsAllocator::copy_partial(Mem_MemFragmentInfo* infos,
                                            const Mem_FragmentsResize& resize)
{
    const size_t partial = resize.Unchanged();
    if (allocate_and_copy_fragment(
            fragments[partial], resize.OldPartialSize(), infos[partial], resize.NewPartialSize(),
            partial >= Mem_MappedFragments::TailStartOf(resize.new_num)) == -1) {
        Log::PartialFragmentFailed(resize);
        return -1;
    }
    Log::PartialFragmentIsReady();
    return 0;
}

int Mem_MemFragmentsAllocator::allocate_and_copy_fragment(Mem_MemFragmentInfo& old_info,
                                                          unsigned int old_size,
                                                          Mem_MemFragmentInfo& new_info,
                                                          unsigned int new_size, bool keep_mapped)
{
    Log::Copying(old_size, new_size);
    debug_print(old_info);
    if (allocate_piece(new_info.pagerInfo, new_size) == -1) {
        Log::CopyIsRefused(new_size, old_info);
        return -1;
    }
    if (map_to_copy(old_info, old_size, new_info) == -1)
        return -1;
    Log::BothAreMapped();
    const unsigned int size = std::min(old_size, new_size);
    old_info.pagerInfo.Prefetch(0, size, MEM_TO_READ);
    new_info.pagerInfo.Prefetch(0, size, MEM_TO_WRITE);
    std::memcpy(new_info.pagerInfo.Ptr(), old_info.pagerInfo.Ptr(), size);
    Log::BytesAreCopied();
    new_info.isMapped = true;
    if (!keep_mapped)
        unmap_copy(old_info, new_info);
    new_info.IndexStart = old_info.IndexStart;
    new_info.IndexEnd = new_info.IndexStart + new_size - 1;
    Log::Copied();
    debug_print(new_info);
    return 0;
}

int Mem_MemFragmentsAllocator::map_to_copy(Mem_MemFragmentInfo& old_info, unsigned int old_size,
                                           Mem_MemFragmentInfo& new_info)
{
    if (old_info.isMapped || old_info.pagerInfo.Map() == 0)
        return 0;
    Log::OriginalCantBeMapped(old_size, old_info);
    if (pager->Free(new_info.pagerInfo) == -1)
        Log::CopyCantBeFreed();
    return -1;
}

void Mem_MemFragmentsAllocator::unmap_copy(const Mem_MemFragmentInfo& old_info,
                                           Mem_MemFragmentInfo& new_info)
{
    if (new_info.pagerInfo.Unmap() == 0)
        new_info.isMapped = false;
    else
        Log::CopyStaysMapped(old_info);
}

int Mem_MemFragmentsAllocator::add_fragments(Mem_MemFragmentInfo* infos,
                                             const Mem_FragmentsResize& resize)
{
    return allocate_fragments(infos, resize.Next(), resize.new_num - resize.Next(), fragment_size,
                              resize.new_last_size, Mem_MappedFragments::CountOf(resize.new_num));
}

void Mem_MemFragmentsAllocator::drop_fragments(const Mem_FragmentsResize& resize)
{
    free_fragments(fragments, resize.Next(), resize.old_num - resize.Next());
}

void Mem_MemFragmentsAllocator::report_built(const Mem_FragmentsResize& resize) const
{
    Log::Built(resize);
}

void Mem_MemFragmentsAllocator::free_old_partial(const Mem_FragmentsResize& resize)
{
    Mem_MemFragmentInfo& info = fragments[resize.Unchanged()];
    if (pager->Free(info.pagerInfo) == -1)
        Log::OldPartialCantBeFreed(info);
    else
        Log::OldPartialIsFreed();
}

void Mem_MemFragmentsAllocator::take_over(Mem_MemFragmentInfo* infos, size_t new_fragments_num)
{
    Log::TakingOver();
    delete[] fragments;
    fragments = infos;
    hold_tail(new_fragments_num);
    Mem_FragmentsCounter(realloc_counter).EndMark();
    Log::TakenOver();
}

// As a new buffer stands: its last fragments mapped, the earlier of them current.
void Mem_MemFragmentsAllocator::hold_tail(size_t count)
{
    mapped_fragments_num = Mem_MappedFragments::CountOf(count);
    for (size_t i = 0; i < mapped_fragments_num; ++i)
        mapped_indexes[i] = Mem_MappedFragments::TailStartOf(count) + i;
    make_current(0);
    mapping_lost = false;
}

// Carrying the tail over may have named a fragment twice, and with it forgotten one that is still
// mapped; and the fragment to be copied may hold a mapping that only the copying needed.
void Mem_MemFragmentsAllocator::mend_mapped_set(const MappedIndexes& old_indexes,
                                                const Mem_FragmentsResize& resize)
{
    if (mapped_fragments_num == mapped_indexes.size() && mapped_indexes[0] == mapped_indexes[1])
        mapped_indexes[1] = old_indexes[old_indexes[0] == mapped_indexes[0] ? 1 : 0];
    for (size_t i = 0; i < mapped_fragments_num; ++i)
        if (find_mapped_fragment_index(old_indexes[i]) == kNone)
            unmap_if_mapped(fragments[old_indexes[i]]);
    if (resize.is_partial && !fragments[resize.Unchanged()].isMapped)
        unmap_if_mapped(fragments[resize.Unchanged()]);
}

void Mem_MemFragmentsAllocator::unmap_if_mapped(Mem_MemFragmentInfo& info)
{
    if (info.pagerInfo.Ptr() != nullptr)
        info.pagerInfo.Unmap();
    info.isMapped = false;
}

void Mem_MemFragmentsAllocator::revert_mapped_set()
{
    if (validate_mapped_indexes() == 0)
        return;
    mapping_lost = true;
    make_none_current();
    Log::RevertingFailed();
}

int Mem_MemFragmentsAllocator::validate_mapped_indexes()
{
    Log::MappingTheNamed();
    if (!valid) {
        Log::NamedAreOfAnInvalidBuffer();
        return -1;
    }
    for (size_t i = 0; i < mapped_fragments_num; ++i) {
        Mem_MemFragmentInfo& info = fragments[mapped_indexes[i]];
        if (!info.isMapped && info.pagerInfo.Map() != 0) {
            Log::NamedCantBeMapped(i, mapped_indexes[i]);
            debug_print(info);
            return -1;
        }
        info.isMapped = true;
    }
    make_current(0);
    mapping_lost = false;
    Log::NamedAreMapped();
    return 0;
}
