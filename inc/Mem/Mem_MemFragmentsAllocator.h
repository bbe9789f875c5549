#ifndef MEM_MEMFRAGMENTSALLOCATOR_H
#define MEM_MEMFRAGMENTSALLOCATOR_H

#include "Mem/Mem_FragmentsAllocator.h"
#include "Mem/Mem_MemPagerInfo.h"
#include "Rw/RWCString.h"
#include "mempager_export.h"

#include <array>
#include <cstddef>
#include <utility>

class Zor_PerformanceCounterData;
struct Mem_FragmentsResize;

/// The bytes of a fragment whose pages were found in one of its views.
struct Mem_ReadyRange {
    size_t start = 1;      ///< the first, in the buffer
    size_t end = 0;        ///< one behind the last; before the start if there is none
    unsigned int view = 0; ///< the pager's number of that view
};

/// One fragment in pager memory.
struct Mem_MemFragmentInfo {
    size_t IndexStart;       ///< its first byte in the buffer
    size_t IndexEnd;         ///< its last byte in the buffer
    bool isMapped;           ///< the allocator holds it mapped through `pagerInfo`
    MEM_PagerInfo pagerInfo; ///< the handle of its piece
    Mem_ReadyRange ready;    ///< what was made ready of it
};

/// A buffer whose fragments are pieces of the process's pager, at most two of them mapped at any
/// moment: with the default size that is 150 MiB of address space for a buffer of any length.
///
/// A byte in a mapped fragment costs two comparisons. A byte in another fragment takes the place
/// of the one of the two that wasn't used last, for one unmapping and one mapping; nothing is
/// copied. So two fragments can be worked on side by side, across a boundary, say: a pointer
/// stays good until the second replacement after it, or until Reallocate(), failed or not.
///
/// The memory is the pager's: zero unless it served another piece before, in shared memory or
/// temp files, and what was unmapped waits in the pager's cache.
///
/// A fragment of less than MEM_MemoryConfiguration::BaseBlockSize() bytes, as the last one can be,
/// shares a region with other pieces. It begins at any byte: take elements out of it with
/// std::memcpy unless all pieces have sizes that keep them aligned. And the view is the region's:
/// a fragment that a resize or the destructor frees while it is mapped leaves the region mapped
/// until its last piece is freed. A larger fragment has a region of its own by default, and begins
/// at a page.
///
/// A fragment that can't be mapped, for want of address space even after the cache was given up,
/// is null, and so is every other fragment that isn't mapped from then on, until a Reallocate()
/// has mapped its last ones again; the fragment in use goes on working. No byte is lost by it.
/// After a Reallocate() that failed and couldn't map the old fragments again either, every access
/// maps what it can, and gives up the other mapping if that helps: until a Reallocate() succeeds,
/// only the latest pointer is sure to be good.
///
/// Lifetime: an allocator in static storage that outlives the pager can only be destroyed.
class MEMPAGER_EXPORT Mem_MemFragmentsAllocator final : public Mem_FragmentsAllocator
{
public:
    /// Allocates all fragments; see the base class for the arguments. The last two are mapped.
    /// Without memory for them nothing is kept, IsValid() is false and the log says why.
    /// @throws std::bad_alloc for want of memory for the list of fragments, or for the pager if
    ///         this is its first use, with nothing kept.
    Mem_MemFragmentsAllocator(size_t element_size, size_t elements, unsigned int fragment_size);

    /// Frees all fragments, mapped or not.
    ~Mem_MemFragmentsAllocator() override;

    /// A plain copy of the members, which would free the same fragments a second time.
    [[deprecated("both copies would free the fragments: move it")]] Mem_MemFragmentsAllocator(
        const Mem_MemFragmentsAllocator&) = default;
    /// The same.
    [[deprecated("both copies would free the fragments: move it")]] Mem_MemFragmentsAllocator&
    operator=(const Mem_MemFragmentsAllocator&) = default;

    /// Takes the fragments, mapped or not; pointers into them stay good. `other` isn't valid any
    /// more.
    Mem_MemFragmentsAllocator(Mem_MemFragmentsAllocator&& other) noexcept { swap(other); }
    /// The same; what was held before is freed.
    Mem_MemFragmentsAllocator& operator=(Mem_MemFragmentsAllocator&& other) noexcept
    {
        Mem_MemFragmentsAllocator taken(std::move(other));
        swap(taken);
        return *this;
    }

    void* GetPointerAtIndex(size_t index) override
    {
        if (current_index_start <= index && index <= current_index_end)
            return static_cast<char*>(current_ptr) + (index - current_index_start);
        return find_in_other_fragments(index);
    }

    /// The range is about to be used: where its fragment was mapped anew, its pages are found at
    /// once, each time for what no range before had.
    void* GetRangeFromIndex(size_t index, size_t& length) override
    {
        void* const pointer = GetPointerAtIndex(index);
        if (pointer != nullptr) {
            const size_t rest = current_index_end - index + 1;
            length = length < rest ? length : rest;
            if (index < ready_start || ready_end < index + length)
                make_range_ready(index, length);
        }
        return pointer;
    }

private:
    friend struct Mem_TestAccess;
    friend struct Mem_FragmentsResize;
    friend class Mem_MappedFragments;

    static constexpr size_t kNone = static_cast<size_t>(-1);

    /// The numbers of the fragments held mapped. A place in here is a mapped index.
    using MappedIndexes = std::array<size_t, 2>;

    static const RWCString REPLACE_PERF_STR;
    static const RWCString REALLOC_PERF_STR;

    void swap(Mem_MemFragmentsAllocator& other) noexcept
    {
        swap_layout(other);
        std::swap(fragments, other.fragments);
        std::swap(mapped_indexes, other.mapped_indexes);
        std::swap(mapped_fragments_num, other.mapped_fragments_num);
        std::swap(current_mapped_index, other.current_mapped_index);
        std::swap(current_index_start, other.current_index_start);
        std::swap(current_index_end, other.current_index_end);
        std::swap(current_ptr, other.current_ptr);
        std::swap(replace_counter, other.replace_counter);
        std::swap(realloc_counter, other.realloc_counter);
        std::swap(pager, other.pager);
        std::swap(ready_start, other.ready_start);
        std::swap(ready_end, other.ready_end);
        std::swap(mapping_lost, other.mapping_lost);
    }

    int reallocate_fragments(size_t new_fragments_num, size_t new_total_buf_size,
                             unsigned int new_last_fragment_size, bool is_partial) override;

    // Fragments
    int allocate_fragments(Mem_MemFragmentInfo* infos, size_t first, size_t count,
                           unsigned int full_size, unsigned int last_size, size_t mapped_fragments);
    int allocate_piece(MEM_PagerInfo& info, unsigned int size);
    void abort_allocation(Mem_MemFragmentInfo* infos, size_t first, size_t count, size_t failed,
                          unsigned int size);
    int free_fragments(Mem_MemFragmentInfo* infos, size_t first, size_t count);
    int free_fragment(Mem_MemFragmentInfo& info);
    static void debug_print(const Mem_MemFragmentInfo& info);

    // Access
    void* find_in_other_fragments(size_t index);
    size_t get_fragment(size_t index);
    size_t find_mapped(size_t index, size_t fragment) const;
    size_t bring_in(size_t fragment);
    size_t get_oldest_mapped_index() const;
    size_t find_mapped_fragment_index(size_t fragment) const;
    int replace_mapped_fragment(size_t mapped_index, size_t fragment);
    void make_current(size_t mapped_index);
    void make_none_current();
    void make_range_ready(size_t index, size_t length);
    void forget_ready_if_anew(Mem_MemFragmentInfo& info);
    size_t get_lost_mapped_index(size_t fragment) const;
    bool give_up_other(size_t mapped_index);

    // Resize
    void unmap_what_leaves(const Mem_FragmentsResize& resize);
    Mem_MemFragmentInfo* make_infos(size_t count);
    int carry_over(Mem_MemFragmentInfo* infos, const Mem_FragmentsResize& resize);
    int carry_over_unchanged(Mem_MemFragmentInfo* infos, const Mem_FragmentsResize& resize);
    int copy_partial(Mem_MemFragmentInfo* infos, const Mem_FragmentsResize& resize);
    int allocate_and_copy_fragment(Mem_MemFragmentInfo& old_info, unsigned int old_size,
                                   Mem_MemFragmentInfo& new_info, unsigned int new_size,
                                   bool keep_mapped);
    int map_to_copy(Mem_MemFragmentInfo& old_info, unsigned int old_size,
                    Mem_MemFragmentInfo& new_info);
    static void unmap_copy(const Mem_MemFragmentInfo& old_info, Mem_MemFragmentInfo& new_info);
    int add_fragments(Mem_MemFragmentInfo* infos, const Mem_FragmentsResize& resize);
    void drop_fragments(const Mem_FragmentsResize& resize);
    void report_built(const Mem_FragmentsResize& resize) const;
    void free_old_partial(const Mem_FragmentsResize& resize);
    void take_over(Mem_MemFragmentInfo* infos, size_t new_fragments_num);
    void hold_tail(size_t count);
    void mend_mapped_set(const MappedIndexes& old_indexes, const Mem_FragmentsResize& resize);
    static void unmap_if_mapped(Mem_MemFragmentInfo& info);
    void revert_mapped_set();
    int validate_mapped_indexes();

    Mem_MemFragmentInfo* fragments = nullptr; // fragments_num of them
    MappedIndexes mapped_indexes = {};
    size_t mapped_fragments_num = 0; // places in use
    size_t current_mapped_index = 0; // of the fragment last served
    size_t current_index_start = 1;  // its bytes; the start lies past the end if there is none
    size_t current_index_end = 0;
    void* current_ptr = nullptr;
    Zor_PerformanceCounterData* replace_counter = nullptr;
    Zor_PerformanceCounterData* realloc_counter = nullptr;
    MEM_MemPager* pager = nullptr;
    size_t ready_start = 1; // the bytes of the current fragment that were made ready
    size_t ready_end = 0;
    bool mapping_lost = false; // a failed resize couldn't map the old fragments again
};

#endif
