#include "Mem/Mem_MemFragmentsAllocator.h"

#include "Mem/Mem_FragmentsCounter.h"
#include "Mem/Mem_MappedFragments.h"
#include "Mem/Mem_MemFragmentsLog.h"
#include "Mem/Mem_MemPager.h"
#include "Mem/Mem_Refusal.h"
#include "NRVlog/Zor_Log.h"

#include <algorithm>
#include <memory>
#include <new>

const RWCString Mem_MemFragmentsAllocator::REPLACE_PERF_STR = "Mem_Fragments_Replace";
const RWCString Mem_MemFragmentsAllocator::REALLOC_PERF_STR = "Mem_Fragments_Realloc";

namespace Log = Mem_MemFragmentsLog;

// Life ------------------------------------------------------------------------------------------

Mem_MemFragmentsAllocator::Mem_MemFragmentsAllocator(size_t element_bytes, size_t element_count,
                                                     unsigned int fragment_bytes)
    : Mem_FragmentsAllocator(element_bytes, element_count, fragment_bytes)
{
    if (!has_layout())
        return;
    Log::Initializing();
    pager = MEM_MemPager::GetHandle();
    auto infos = std::make_unique<Mem_MemFragmentInfo[]>(fragments_num);
    mapped_fragments_num = Mem_MappedFragments::CountOf(fragments_num);
    if (allocate_fragments(infos.get(), 0, fragments_num, fragment_size, last_fragment_size,
                           mapped_fragments_num) == -1) {
        Log::InitializationFailed(fragments_num, total_buf_size);
        return;
    }
    fragments = infos.release();
    hold_tail(fragments_num);
    replace_counter = AddFragmentsCounter(REPLACE_PERF_STR);
    realloc_counter = AddFragmentsCounter(REALLOC_PERF_STR);
    valid = true;
    Mem_MappedFragments::Check(*this, fragments_num, last_fragment_size);
    Log::Initialized();
}

Mem_MemFragmentsAllocator::~Mem_MemFragmentsAllocator()
{
    Log::Destructing(total_buf_size);
    if (!valid) {
        Log::HadNothingToFree();
        return;
    }
    for (size_t i = 0; i < fragments_num; ++i)
        free_fragment(fragments[i]);
    Log::FreedAll(fragments_num);
    delete[] fragments;
    fragments = nullptr;
    make_none_current();
    valid = false;
    Log::Destructed();
}

// Fragments -------------------------------------------------------------------------------------

int Mem_MemFragmentsAllocator::allocate_fragments(Mem_MemFragmentInfo* infos, size_t first,
                                                  size_t count, unsigned int full_size,
                                                  unsigned int last_size, size_t mapped_fragments)
{
    Log::Allocating(count, first, full_size, last_size, mapped_fragments);
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
            Log::NewFragmentStaysMapped(i, first, count, size);
    }
    Log::Allocated();
    return 0;
}

int Mem_MemFragmentsAllocator::allocate_piece(MEM_PagerInfo& info, unsigned int size)
{
    try {
        return pager->Allocate(size, &info, 0);
    } catch (const std::bad_alloc&) { // no memory for the pager's records
        RefuseWhole(Mem_Reason::Operation::Allocate, size);
        return -1;
    }
}

void Mem_MemFragmentsAllocator::abort_allocation(Mem_MemFragmentInfo* infos, size_t first,
                                                 size_t count, size_t failed, unsigned int size)
{
    Log::AllocationFailed(failed, first, count, size);
    if (failed > first)
        free_fragments(infos, first, failed - first);
    Log::AllocationIsUndone();
}

int Mem_MemFragmentsAllocator::free_fragments(Mem_MemFragmentInfo* infos, size_t first,
                                              size_t count)
{
    Log::Freeing(count, first);
    for (size_t i = first; i < first + count; ++i)
        if (free_fragment(infos[i]) == -1)
            Log::FreeFailed(i, count);
    Log::Freed();
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
    Log::LooksFor(index);
    if (!valid) {
        Log::BufferIsInvalid();
        return nullptr;
    }
    const size_t fragment = get_fragment(index);
    if (fragment == kNone) {
        Log::NoFragmentHasTheIndex();
        return nullptr;
    }
    Log::FragmentIsFound(fragment);
    debug_print(fragments[fragment]);
    const size_t mapped_index =
        fragments[fragment].isMapped ? find_mapped(index, fragment) : bring_in(fragment);
    if (mapped_index == kNone)
        return nullptr;
    make_current(mapped_index);
    Mem_MappedFragments::Check(*this, fragments_num, last_fragment_size);
    Log::FragmentIsServed(fragment);
    return static_cast<char*>(current_ptr) + (index - current_index_start);
}

size_t Mem_MemFragmentsAllocator::get_fragment(size_t index)
{
    if (index >= total_buf_size) {
        Log::IndexIsOutOfRange(index, total_buf_size);
        return kNone;
    }
    const size_t fragment = index / fragment_size;
    const Mem_MemFragmentInfo& info = fragments[std::min(fragment, fragments_num - 1)];
    if (fragment < fragments_num && info.IndexStart <= index && index <= info.IndexEnd)
        return fragment;
    Log::IndexContradictsLayout(index, total_buf_size, fragment_size, fragment, info);
    return kNone;
}

size_t Mem_MemFragmentsAllocator::find_mapped(size_t index, size_t fragment) const
{
    const size_t mapped_index = find_mapped_fragment_index(fragment);
    if (mapped_index == kNone)
        Log::MappedSetLacksFragment(index, fragment);
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
    Log::ReplacementFailed();
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
    Log::Replacing(mapped_index, mapped_indexes[mapped_index], fragment);
    const Mem_FragmentsCounter counter(replace_counter);
    counter.Mark();
    const bool is_lost = mapping_lost && !old_info.isMapped;
    if (!is_lost && old_info.pagerInfo.Unmap() == -1) {
        Log::OldFragmentStaysMapped(mapped_index);
        return -1;
    }
    counter.End();
    old_info.isMapped = false;
    Log::OldFragmentIsUnmapped();
    if (new_info.pagerInfo.Map() == -1) {
        Log::MapFailed(fragment);
        return -1;
    }
    counter.EndMark();
    new_info.isMapped = true;
    forget_ready_if_anew(new_info);
    mapped_indexes[mapped_index] = fragment;
    Log::Replaced();
    return 0;
}

void Mem_MemFragmentsAllocator::make_current(size_t mapped_index)
{
    const Mem_MemFragmentInfo& info = fragments[mapped_indexes[mapped_index]];
    current_mapped_index = mapped_index;
    current_index_start = info.IndexStart;
    current_index_end = info.IndexEnd;
    current_ptr = info.pagerInfo.Ptr();
    ready_start = info.ready.start;
    ready_end = info.ready.end;
}

void Mem_MemFragmentsAllocator::make_none_current()
{
    current_index_start = 1;
    current_index_end = 0;
    ready_start = 1;
    ready_end = 0;
    current_ptr = nullptr;
}

/// Asks for what lies outside of the bytes that are ready, if the range joins them: so a scan asks
/// for each byte once, in either direction. A range apart from them takes their place.
void Mem_MemFragmentsAllocator::make_range_ready(size_t index, size_t length)
{
    Mem_MemFragmentInfo& info = fragments[mapped_indexes[current_mapped_index]];
    const auto ask = [&info](size_t begin, size_t end) {
        if (begin < end)
            info.pagerInfo.Prefetch(begin - info.IndexStart, end - begin, MEM_TO_READ);
    };
    const size_t end = index + length;
    if (info.ready.end < info.ready.start || end < info.ready.start || info.ready.end < index) {
        ask(index, end);
        info.ready.start = index;
        info.ready.end = end;
    } else {
        ask(index, info.ready.start);
        ask(info.ready.end, end);
        info.ready.start = std::min(info.ready.start, index);
        info.ready.end = std::max(info.ready.end, end);
    }
    ready_start = info.ready.start;
    ready_end = info.ready.end;
}

/// What was ready in a view is still so if that has only waited in the cache.
void Mem_MemFragmentsAllocator::forget_ready_if_anew(Mem_MemFragmentInfo& info)
{
    const unsigned int view = pager->view_number(info.pagerInfo);
    if (view != info.ready.view)
        info.ready = {.view = view};
}

// The mapped index that a fragment is to get after mappings were lost. If one names the fragment
// already, it is that one, so that none is named twice; else one whose mapping was lost; else the
// oldest.
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

// Ends the other mapping, since the address space that it takes may be all that there is.
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
