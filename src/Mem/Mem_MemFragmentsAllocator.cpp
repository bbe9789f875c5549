#include "Mem/Mem_MemFragmentsAllocator.h"

#include "Mem/Mem_FragmentsResize.h"
#include "Mem/Mem_MemPager.h"
#include "Mem/Mem_Units.h"
#include "NRVlog/Zor_Log.h"
#include "Zor/Zor_PerformanceCounters.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

const RWCString Mem_MemFragmentsAllocator::REPLACE_PERF_STR = "Mem_Fragments_Replace";
const RWCString Mem_MemFragmentsAllocator::REALLOC_PERF_STR = "Mem_Fragments_Realloc";

namespace
{
constexpr size_t kMostMapped = 2;

/// How many of `fragments_num` fragments are held mapped, and the first of them in a new buffer.
size_t mapped_of(size_t fragments_num)
{
    return std::min(fragments_num, kMostMapped);
}

size_t tail_start_of(size_t fragments_num)
{
    return fragments_num - mapped_of(fragments_num);
}

// Counters of an object's own, which differ by their ids only.
Zor_PerformanceCounterData* add_counter(const RWCString& name)
{
    Zor_PerformanceCounters* const counters = Zor_PerformanceCounters::Instance();
    const int id = counters->m_id++;
    return counters->AddCounter(ZOR_COUNT_INTERVALS, Zor_PerformanceCounterData::SYSTEM_GENERAL,
                                name, Zor_PerformanceCounterData::RW_NULL,
                                Zor_PerformanceCounterData::RW_NULL, id, 5, 7, nullptr);
}

bool wanted(const Zor_PerformanceCounterData* counter)
{
    return counter != nullptr && Zor_PerformanceCounters::GetLogLevel() > 4;
}

void mark(Zor_PerformanceCounterData* counter)
{
    if (wanted(counter))
        counter->Mark();
}

void end_mark(Zor_PerformanceCounterData* counter)
{
    if (wanted(counter))
        counter->EndMark(-999, -1.0);
}
} // namespace

// Life ------------------------------------------------------------------------------------------

Mem_MemFragmentsAllocator::Mem_MemFragmentsAllocator(size_t element_bytes, size_t element_count,
                                                     unsigned int fragment_bytes)
    : Mem_FragmentsAllocator(element_bytes, element_count, fragment_bytes)
{
    if (!has_layout())
        return;
    ZOR_LOG("Mem_MemFragmentsAllocator::Mem_MemFragmentsAllocator", 6,
            "Initializing MEM fragments..\n");
    pager = MEM_MemPager::GetHandle();
    auto infos = std::make_unique<Mem_MemFragmentInfo[]>(fragments_num);
    mapped_fragments_num = mapped_of(fragments_num);
    if (allocate_fragments(infos.get(), 0, fragments_num, fragment_size, last_fragment_size,
                           mapped_fragments_num) == -1) {
        ZOR_LOG("Mem_MemFragmentsAllocator::Mem_MemFragmentsAllocator", 3,
                "Failed allocating MEM Fragments! (Tried to allocated %Iu fragments, with total "
                "size of <%Iu bytes>)\n",
                fragments_num, total_buf_size);
        return;
    }
    fragments = infos.release();
    hold_tail(fragments_num);
    replace_counter = add_counter(REPLACE_PERF_STR);
    realloc_counter = add_counter(REALLOC_PERF_STR);
    valid = true;
    ZOR_LOG("Mem_MemFragmentsAllocator::Mem_MemFragmentsAllocator", 6,
            "Mem_MemFragmentsAllocator C-tor Done.\n");
}

Mem_MemFragmentsAllocator::~Mem_MemFragmentsAllocator()
{
    ZOR_LOG("Mem_MemFragmentsAllocator::~Mem_MemFragmentsAllocator", 5,
            "~Mem_MemFragmentsAllocator: Destructing the Mem_FragmentsAllocator: size=<%d>\n",
            static_cast<int>(total_buf_size >> 20));
    if (!valid) {
        ZOR_LOG("Mem_MemFragmentsAllocator::~Mem_MemFragmentsAllocator", 5,
                "~Mem_MemFragmentsAllocator: BufAllocator is invalid, no need to destroy..\n");
        return;
    }
    for (size_t i = 0; i < fragments_num; ++i)
        free_fragment(fragments[i]);
    ZOR_LOG("Mem_MemFragmentsAllocator::~Mem_MemFragmentsAllocator", 6,
            "~Mem_MemFragmentsAllocator: Freed %Iu fragments successfully\n", fragments_num);
    delete[] fragments;
    fragments = nullptr;
    make_none_current();
    valid = false;
    ZOR_LOG("Mem_MemFragmentsAllocator::~Mem_MemFragmentsAllocator", 6,
            "~Mem_MemFragmentsAllocator: Finished!\n");
}

// Fragments -------------------------------------------------------------------------------------

int Mem_MemFragmentsAllocator::allocate_fragments(Mem_MemFragmentInfo* infos, size_t first,
                                                  size_t count, unsigned int full_size,
                                                  unsigned int last_size, size_t mapped_fragments)
{
    ZOR_LOG("Mem_MemFragmentsAllocator::allocate_fragments", 6,
            "allocate_fragments: Allocating %Iu fragments from index %Iu. FragmentSize=%u, "
            "LastFragmentSize=%u, MappedFragments=%Iu\n",
            count, first, full_size, last_size, mapped_fragments);
    const size_t last = first + count - 1;
    for (size_t i = first; i <= last; ++i) {
        const unsigned int size = i == last ? last_size : full_size;
        if (allocate_piece(infos[i].pagerInfo, size) == -1) {
            abort_allocation(infos, first, count, i, size);
            return -1;
        }
        infos[i].IndexStart = full_size * i;
        infos[i].IndexEnd = infos[i].IndexStart + size - 1;
        infos[i].isMapped = true;
        if (last - i < mapped_fragments)
            continue;
        if (infos[i].pagerInfo.Unmap() == 0)
            infos[i].isMapped = false;
        else
            ZOR_LOG("Mem_MemFragmentsAllocator::allocate_fragments", 5,
                    "allocate_fragments: Failed unmapping fragment number %Iu out of %Iu "
                    "fragments. FragmentIndex=<%Iu>, FragmentSize=<%u>. Ignoring..\n",
                    i - first, count, i, size);
    }
    ZOR_LOG("Mem_MemFragmentsAllocator::allocate_fragments", 6,
            "allocate_fragments: Finished allocating all fragments successfully!\n");
    return 0;
}

int Mem_MemFragmentsAllocator::allocate_piece(MEM_PagerInfo& info, unsigned int size)
{
    try {
        return pager->Allocate(size, &info, 0);
    } catch (const std::bad_alloc&) { // no memory for the pager's records
        return -1;
    }
}

void Mem_MemFragmentsAllocator::abort_allocation(Mem_MemFragmentInfo* infos, size_t first,
                                                 size_t count, size_t failed, unsigned int size)
{
    ZOR_LOG("Mem_MemFragmentsAllocator::allocate_fragments", 5,
            "allocate_fragments: Failed allocating fragment number %Iu, out of %Iu fragments. "
            "FragmentIndex=<%Iu>, FragmentSize=<%u>. Aborting\n",
            failed - first, count, failed, size);
    ZOR_LOG("Mem_MemFragmentsAllocator::allocate_fragments", 3,
            "allocate_fragments: Failed allocating fragments! Tried to allocate %Iu fragments from "
            "index %Iu, failed on index %Iu\n",
            count, first, failed);
    if (failed > first)
        free_fragments(infos, first, failed - first);
    ZOR_LOG("Mem_MemFragmentsAllocator::allocate_fragments", 6,
            "allocate_fragments: Aborted successfully\n");
}

int Mem_MemFragmentsAllocator::free_fragments(Mem_MemFragmentInfo* infos, size_t first,
                                              size_t count)
{
    ZOR_LOG("Mem_MemFragmentsAllocator::free_fragments", 6,
            "free_fragments: Freeing %d fragments, starting from %d", static_cast<int>(count),
            static_cast<int>(first));
    for (size_t i = first; i < first + count; ++i)
        if (free_fragment(infos[i]) == -1)
            ZOR_LOG("Mem_MemFragmentsAllocator::free_fragments", 5,
                    "free_fragments: Free failed, memory leak might have "
                    "occurred...FragmentIndex=%Iu, FragmentsNum=%Iu\n",
                    i, count);
    ZOR_LOG("Mem_MemFragmentsAllocator::free_fragments", 6, "free_fragments: Done!\n");
    return 0;
}

int Mem_MemFragmentsAllocator::free_fragment(Mem_MemFragmentInfo& info)
{
    const int result = pager->Free(info.pagerInfo);
    info.IndexStart = 0;
    info.IndexEnd = 0;
    return result;
}

void Mem_MemFragmentsAllocator::debug_print(const Mem_MemFragmentInfo& info)
{
    ZOR_LOG("Mem_MemFragmentsAllocator::debug_print", 7,
            "\tMemfragmentInfo Details: isMapped=<%s>; IndexStart=<%Iu>; IndexEnd=<%Iu>; "
            "pagerInfo.IsValid=<%s>\n",
            info.isMapped ? "TRUE" : "FALSE", info.IndexStart, info.IndexEnd,
            info.pagerInfo.IsValid() ? "TRUE" : "FALSE");
}

// Access ----------------------------------------------------------------------------------------

void* Mem_MemFragmentsAllocator::find_in_other_fragments(size_t index)
{
    ZOR_LOG("Mem_MemFragmentsAllocator::find_in_other_fragments", 6,
            "find_in_other_fragments: index=<%Iu>\n", index);
    if (!valid) {
        ZOR_LOG("Mem_MemFragmentsAllocator::find_in_other_fragments", 3,
                "find_in_other_fragments: The FragmentsAllocator is invalid! Returning NULL...\n");
        return nullptr;
    }
    const size_t fragment = get_fragment(index);
    if (fragment == kNone) {
        ZOR_LOG("Mem_MemFragmentsAllocator::find_in_other_fragments", 3,
                "find_in_other_fragments: get_fragment failed! Returning NULL...\n");
        return nullptr;
    }
    ZOR_LOG("Mem_MemFragmentsAllocator::find_in_other_fragments", 7,
            "find_in_other_fragments: The required fragment index is: <%Iu>\n", fragment);
    debug_print(fragments[fragment]);
    const size_t mapped_index =
        fragments[fragment].isMapped ? find_mapped(index, fragment) : bring_in(fragment);
    if (mapped_index == kNone)
        return nullptr;
    make_current(mapped_index);
    ZOR_LOG("Mem_MemFragmentsAllocator::find_in_other_fragments", 6,
            "find_in_other_fragments: Done! Returning a pointer from fragment <%Iu>\n", fragment);
    return static_cast<char*>(current_ptr) + (index - current_index_start);
}

size_t Mem_MemFragmentsAllocator::get_fragment(size_t index)
{
    if (index >= total_buf_size) {
        ZOR_LOG("Mem_MemFragmentsAllocator::get_fragment", 3,
                "get_fragment: Index <%Iu> is not in buffer range: <%Iu>!\n", index,
                total_buf_size);
        return kNone;
    }
    const size_t fragment = index / fragment_size;
    const Mem_MemFragmentInfo& info = fragments[std::min(fragment, fragments_num - 1)];
    if (fragment < fragments_num && info.IndexStart <= index && index <= info.IndexEnd)
        return fragment;
    ZOR_LOG("Mem_MemFragmentsAllocator::get_fragment", 3,
            "get_fragment: Inconsistency with indexes! Index=<%Iu>, TotalBuffSize=<%Iu>, "
            "fragmentSize=<%u>, FragmentIndex=<%u>, IndexStart=<%Iu>, IndexEnd=<%Iu>\n",
            index, total_buf_size, fragment_size, static_cast<unsigned int>(fragment),
            info.IndexStart, info.IndexEnd);
    return kNone;
}

size_t Mem_MemFragmentsAllocator::find_mapped(size_t index, size_t fragment) const
{
    const size_t mapped_index = find_mapped_fragment_index(fragment);
    if (mapped_index == kNone)
        ZOR_LOG("Mem_MemFragmentsAllocator::find_in_other_fragments", 3,
                "find_in_other_fragments: Inconsistency between isMapped to mapped array! "
                "_index=<%Iu>, required_fragment=<%Iu>\n",
                index, fragment);
    return mapped_index;
}

size_t Mem_MemFragmentsAllocator::bring_in(size_t fragment)
{
    const size_t mapped_index =
        mapping_lost ? get_lost_mapped_index(fragment) : get_oldest_mapped_index();
    if (replace_mapped_fragment(mapped_index, fragment) == 0 ||
        (mapping_lost && give_up_other(mapped_index) &&
         replace_mapped_fragment(mapped_index, fragment) == 0))
        return mapped_index;
    ZOR_LOG("Mem_MemFragmentsAllocator::find_in_other_fragments", 3,
            "find_in_other_fragments: Couldn't replace with unmapped fragment!\n");
    return kNone;
}

size_t Mem_MemFragmentsAllocator::get_oldest_mapped_index() const
{
    return mapped_fragments_num == 1 ? 0 : 1 - current_mapped_index;
}

size_t Mem_MemFragmentsAllocator::find_mapped_fragment_index(size_t fragment) const
{
    const auto end = mapped_indexes.begin() + static_cast<std::ptrdiff_t>(mapped_fragments_num);
    const auto found = std::find(mapped_indexes.begin(), end, fragment);
    return found != end ? static_cast<size_t>(found - mapped_indexes.begin()) : kNone;
}

int Mem_MemFragmentsAllocator::replace_mapped_fragment(size_t mapped_index, size_t fragment)
{
    Mem_MemFragmentInfo& old_info = fragments[mapped_indexes[mapped_index]];
    Mem_MemFragmentInfo& new_info = fragments[fragment];
    ZOR_LOG("Mem_MemFragmentsAllocator::replace_mapped_fragment", 6,
            "replace_mapped_fragment: Replacing mapped index <%Iu> (to fragment %Iu) with unmapped "
            "fragment <%Iu>\n",
            mapped_index, mapped_indexes[mapped_index], fragment);
    mark(replace_counter);
    const bool is_lost = mapping_lost && !old_info.isMapped;
    if (!is_lost && old_info.pagerInfo.Unmap() == -1) {
        ZOR_LOG("Mem_MemFragmentsAllocator::replace_mapped_fragment", 3,
                "replace_mapped_fragment: Couldn't unmap at index <%Iu>\n", mapped_index);
        return -1;
    }
    if (wanted(replace_counter))
        replace_counter->End(-999, -1.0, nullptr);
    old_info.isMapped = false;
    ZOR_LOG("Mem_MemFragmentsAllocator::replace_mapped_fragment", 7,
            "replace_mapped_fragment: Unmapped old fragment successfully, now mapping new "
            "fragment...\n");
    if (new_info.pagerInfo.Map() == -1) {
        ZOR_LOG("Mem_MemFragmentsAllocator::replace_mapped_fragment", 3,
                "replace_mapped_fragment: Couldn't map the page at index <%Iu>\n", fragment);
        return -1;
    }
    end_mark(replace_counter);
    new_info.isMapped = true;
    mapped_indexes[mapped_index] = fragment;
    ZOR_LOG("Mem_MemFragmentsAllocator::replace_mapped_fragment", 6,
            "replace_mapped_fragment: Replaced mapped fragment successfully\n");
    return 0;
}

void Mem_MemFragmentsAllocator::make_current(size_t mapped_index)
{
    const Mem_MemFragmentInfo& info = fragments[mapped_indexes[mapped_index]];
    current_mapped_index = mapped_index;
    current_index_start = info.IndexStart;
    current_index_end = info.IndexEnd;
    current_ptr = info.pagerInfo.Ptr();
}

void Mem_MemFragmentsAllocator::make_none_current()
{
    current_index_start = 1;
    current_index_end = 0;
    current_ptr = nullptr;
}

// The place that names the fragment already, so that none is named twice, or else one whose
// mapping was lost, or else the oldest.
size_t Mem_MemFragmentsAllocator::get_lost_mapped_index(size_t fragment) const
{
    const size_t own = find_mapped_fragment_index(fragment);
    if (own != kNone)
        return own;
    for (size_t i = 0; i < mapped_fragments_num; ++i)
        if (!fragments[mapped_indexes[i]].isMapped)
            return i;
    return get_oldest_mapped_index();
}

// The room that the other mapping takes may be all that there is.
bool Mem_MemFragmentsAllocator::give_up_other(size_t mapped_index)
{
    if (mapped_fragments_num == 1)
        return false;
    Mem_MemFragmentInfo& other = fragments[mapped_indexes[1 - mapped_index]];
    if (!other.isMapped || other.pagerInfo.Unmap() != 0)
        return false;
    other.isMapped = false;
    make_none_current();
    return true;
}

// Resize ----------------------------------------------------------------------------------------

int Mem_MemFragmentsAllocator::reallocate_fragments(size_t new_fragments_num,
                                                    size_t new_total_buf_size,
                                                    unsigned int new_last_fragment_size,
                                                    bool is_partial)
{
    ZOR_LOG("Mem_MemFragmentsAllocator::reallocate_fragments", 6,
            "Mem reallocate_fragments Started..\n");
    mark(realloc_counter);
    const Mem_FragmentsResize resize{fragments_num,      new_fragments_num,      fragment_size,
                                     last_fragment_size, new_last_fragment_size, is_partial};
    const MappedIndexes old_indexes = mapped_indexes;
    unmap_what_leaves(resize);
    Mem_MemFragmentInfo* const infos = make_infos(new_fragments_num);
    if (resize.Build(*this, infos) == 0) {
        take_over(infos, new_fragments_num);
        return 0;
    }
    ZOR_LOG("Mem_MemFragmentsAllocator::reallocate_fragments", 3,
            "Reallocate: An error occurred while trying to reallocate the Mem "
            "Buffer!OriginalBufferSize=<%.2fMB>, NewBufferSize=<%.2fMB>\n",
            InMb(total_buf_size), InMb(new_total_buf_size));
    mend_mapped_set(old_indexes, resize);
    revert_mapped_set();
    delete[] infos;
    return -1;
}

// The old last fragment stays mapped where it is to be copied.
void Mem_MemFragmentsAllocator::unmap_what_leaves(const Mem_FragmentsResize& resize)
{
    const size_t tail_start = tail_start_of(resize.new_num);
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
            ZOR_LOG("Mem_MemFragmentsAllocator::reallocate_fragments", 5,
                    "Reallocate: Unmap failed, memory leak might have occurred. "
                    "FragmentStartIndex=%Iu, FragmentEndIndex=%Iu\n",
                    info.IndexStart, info.IndexEnd);
    }
    ZOR_LOG("Mem_MemFragmentsAllocator::reallocate_fragments", 6,
            "Reallocate: Unmapped all mapped fragments\n");
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
    ZOR_LOG("Mem_MemFragmentsAllocator::reallocate_fragments", 6,
            "Reallocate: Finished copying unchanged fragments (Result=<%s>, OldFragments=<%Iu>, "
            "NewFragments=<%Iu>, IsPartial=<%d>)\n",
            result == 0 ? "SUCCESS" : "FAILURE", resize.OldWhole(), resize.NewWhole(),
            resize.is_partial ? 1 : 0);
    return result;
}

int Mem_MemFragmentsAllocator::carry_over_unchanged(Mem_MemFragmentInfo* infos,
                                                    const Mem_FragmentsResize& resize)
{
    const size_t tail_start = tail_start_of(resize.new_num);
    size_t mapped_index = 0;
    for (size_t i = 0; i < resize.Unchanged(); ++i) {
        if (i >= tail_start) {
            if (!fragments[i].isMapped && fragments[i].pagerInfo.Map() != 0) {
                ZOR_LOG("Mem_MemFragmentsAllocator::reallocate_fragments", 3,
                        "Reallocate: Failed on mapping copied fragment %d..\n",
                        static_cast<int>(i));
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
    if (allocate_and_copy_fragment(fragments[partial], resize.OldPartialSize(), infos[partial],
                                   resize.NewPartialSize(),
                                   partial >= tail_start_of(resize.new_num)) == -1) {
        ZOR_LOG("Mem_MemFragmentsAllocator::reallocate_fragments", 3,
                "Reallocate: Failed on allocating a new fragment with size <%d> for the partial "
                "fragment <%d>\n",
                static_cast<int>(resize.NewPartialSize()), static_cast<int>(partial));
        return -1;
    }
    ZOR_LOG("Mem_MemFragmentsAllocator::reallocate_fragments", 6,
            "Reallocate: Finished handling partial fragment\n");
    return 0;
}

int Mem_MemFragmentsAllocator::allocate_and_copy_fragment(Mem_MemFragmentInfo& old_info,
                                                          unsigned int old_size,
                                                          Mem_MemFragmentInfo& new_info,
                                                          unsigned int new_size, bool keep_mapped)
{
    ZOR_LOG("Mem_MemFragmentsAllocator::allocate_and_copy_fragment", 6,
            "allocate_and_copy_fragment: Copying OldFragment (size=%d) to NewFragment "
            "(size=%d):\n",
            static_cast<int>(old_size), static_cast<int>(new_size));
    debug_print(old_info);
    if (allocate_piece(new_info.pagerInfo, new_size) == -1) {
        ZOR_LOG("Mem_MemFragmentsAllocator::allocate_and_copy_fragment", 5,
                "reallocate_fragment: Allocate has failed for new fragment: FragmentSize=%u, "
                "StartIndex=%Iu, EndIndex=%Iu\n",
                new_size, old_info.IndexStart, old_info.IndexEnd);
        return -1;
    }
    if (map_to_copy(old_info, old_size, new_info) == -1)
        return -1;
    ZOR_LOG("Mem_MemFragmentsAllocator::allocate_and_copy_fragment", 6,
            "allocate_and_copy_fragment: Both fragments are mapped, copying data..\n");
    std::memcpy(new_info.pagerInfo.Ptr(), old_info.pagerInfo.Ptr(), std::min(old_size, new_size));
    ZOR_LOG("Mem_MemFragmentsAllocator::allocate_and_copy_fragment", 6,
            "allocate_and_copy_fragment: Finished copying data\n");
    new_info.isMapped = true;
    if (!keep_mapped)
        unmap_copy(old_info, new_info);
    new_info.IndexStart = old_info.IndexStart;
    new_info.IndexEnd = new_info.IndexStart + new_size - 1;
    ZOR_LOG("Mem_MemFragmentsAllocator::allocate_and_copy_fragment", 6,
            "allocate_and_copy_fragment: Successfully copied old fragment to new fragment:\n");
    debug_print(new_info);
    return 0;
}

int Mem_MemFragmentsAllocator::map_to_copy(Mem_MemFragmentInfo& old_info, unsigned int old_size,
                                           Mem_MemFragmentInfo& new_info)
{
    if (old_info.isMapped || old_info.pagerInfo.Map() == 0)
        return 0;
    ZOR_LOG("Mem_MemFragmentsAllocator::allocate_and_copy_fragment", 5,
            "reallocate_fragment: Map has failed for original fragment: FragmentSize=%u, "
            "StartIndex=%Iu, EndIndex=%Iu\n",
            old_size, old_info.IndexStart, old_info.IndexEnd);
    if (pager->Free(new_info.pagerInfo) == -1)
        ZOR_LOG("Mem_MemFragmentsAllocator::allocate_and_copy_fragment", 5,
                "reallocate_fragment: Couldn't free new fragment...\n");
    return -1;
}

void Mem_MemFragmentsAllocator::unmap_copy(const Mem_MemFragmentInfo& old_info,
                                           Mem_MemFragmentInfo& new_info)
{
    if (new_info.pagerInfo.Unmap() == 0)
        new_info.isMapped = false;
    else
        ZOR_LOG("Mem_MemFragmentsAllocator::allocate_and_copy_fragment", 5,
                "reallocate_fragment: Unmap failed, memory leak might have occurred... "
                "FragmentStartIndex=%Iu, FragmentEndIndex=%Iu\n",
                old_info.IndexStart, old_info.IndexEnd);
}

int Mem_MemFragmentsAllocator::add_fragments(Mem_MemFragmentInfo* infos,
                                             const Mem_FragmentsResize& resize)
{
    return allocate_fragments(infos, resize.Next(), resize.new_num - resize.Next(), fragment_size,
                              resize.new_last_size, mapped_of(resize.new_num));
}

void Mem_MemFragmentsAllocator::drop_fragments(const Mem_FragmentsResize& resize)
{
    free_fragments(fragments, resize.Next(), resize.old_num - resize.Next());
}

void Mem_MemFragmentsAllocator::report_built(const Mem_FragmentsResize& resize) const
{
    ZOR_LOG("Mem_MemFragmentsAllocator::reallocate_fragments", 6,
            "Reallocate: Finished successfully creating the new buffer. IsPartialFragment=<%s>\n",
            resize.is_partial ? "TRUE" : "FALSE");
}

void Mem_MemFragmentsAllocator::free_old_partial(const Mem_FragmentsResize& resize)
{
    Mem_MemFragmentInfo& info = fragments[resize.Unchanged()];
    if (pager->Free(info.pagerInfo) == -1)
        ZOR_LOG("Mem_MemFragmentsAllocator::reallocate_fragments", 5,
                "Reallocate: Free failed, memory leak might have occurred... "
                "FragmentStartIndex=%Iu, FragmentEndIndex=%Iu\n",
                info.IndexStart, info.IndexEnd);
    else
        ZOR_LOG("Mem_MemFragmentsAllocator::reallocate_fragments", 6,
                "Reallocate: Succeeded freeing the %s fragment\n", "old");
}

void Mem_MemFragmentsAllocator::take_over(Mem_MemFragmentInfo* infos, size_t new_fragments_num)
{
    ZOR_LOG("Mem_MemFragmentsAllocator::reallocate_fragments", 6,
            "reallocate_fragments: Replacing old fragments..\n");
    delete[] fragments;
    fragments = infos;
    hold_tail(new_fragments_num);
    end_mark(realloc_counter);
    ZOR_LOG("Mem_MemFragmentsAllocator::reallocate_fragments", 6,
            "reallocate_fragments: New reallocated fragments are ready\n");
}

// As a new buffer stands: its last fragments mapped, the earlier of them current.
void Mem_MemFragmentsAllocator::hold_tail(size_t count)
{
    mapped_fragments_num = mapped_of(count);
    for (size_t i = 0; i < mapped_fragments_num; ++i)
        mapped_indexes[i] = tail_start_of(count) + i;
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
    ZOR_LOG("Mem_MemFragmentsAllocator::reallocate_fragments", 3,
            "Reallocate: Failed reverting originally mapped fragments!\n");
}

int Mem_MemFragmentsAllocator::validate_mapped_indexes()
{
    ZOR_LOG("Mem_MemFragmentsAllocator::validate_mapped_indexes", 6,
            "validate_mapped_indexes: Mapping all the required fragments\n");
    if (!valid) {
        ZOR_LOG("Mem_MemFragmentsAllocator::validate_mapped_indexes", 3,
                "validate_mapped_indexes: Tried to validate an invalid BufAllocator!\n");
        return -1;
    }
    for (size_t i = 0; i < mapped_fragments_num; ++i) {
        Mem_MemFragmentInfo& info = fragments[mapped_indexes[i]];
        if (!info.isMapped && info.pagerInfo.Map() != 0) {
            ZOR_LOG("Mem_MemFragmentsAllocator::validate_mapped_indexes", 6,
                    "validate_mapped_indexes: Failed mapping index %d (with fragment %d):",
                    static_cast<int>(i), static_cast<int>(mapped_indexes[i]));
            debug_print(info);
            return -1;
        }
        info.isMapped = true;
    }
    make_current(0);
    mapping_lost = false;
    ZOR_LOG("Mem_MemFragmentsAllocator::validate_mapped_indexes", 6,
            "validate_mapped_indexes: Succeeded mapping all fragments\n");
    return 0;
}
