#ifndef MEM_FRAGMENTSRESIZE_H
#define MEM_FRAGMENTSRESIZE_H

#include <algorithm>
#include <cstddef>

/// What a resize does to a run of fragments, for allocators that keep each fragment by itself.
///
/// The leading fragments of full size that both layouts have are carried over as they stand. If
/// `is_partial`, the one behind them changes its size and is copied. The rest is new, or goes.
struct Mem_FragmentsResize {
    size_t old_num;
    size_t new_num;
    unsigned int fragment_size;
    unsigned int old_last_size;
    unsigned int new_last_size;
    bool is_partial;

    /// Fragments of full size, in each layout.
    size_t OldWhole() const { return old_num - (old_last_size != fragment_size ? 1 : 0); }
    size_t NewWhole() const { return new_num - (new_last_size != fragment_size ? 1 : 0); }

    /// How many are carried over; also the number of the one that changes its size.
    size_t Unchanged() const { return std::min(OldWhole(), NewWhole()); }

    /// The first that only one of the layouts has.
    size_t Next() const { return Unchanged() + (is_partial ? 1 : 0); }

    /// Bytes of the one that changes its size.
    unsigned int OldPartialSize() const
    {
        return Unchanged() < old_num - 1 ? fragment_size : old_last_size;
    }
    unsigned int NewPartialSize() const
    {
        return Unchanged() < new_num - 1 ? fragment_size : new_last_size;
    }

    /// Fills `infos`, the records of the new layout, beside the allocator's own, step by step.
    /// What no longer exists is freed only when nothing can fail any more.
    /// @return 0; -1 if a step has failed. What `infos` then has of its own is the caller's.
    template <class Allocator, class Info>
    int Build(Allocator& allocator, Info* infos) const
    {
        if (allocator.carry_over(infos, *this) == -1)
            return -1;
        if (is_partial && allocator.copy_partial(infos, *this) == -1)
            return -1;
        int result = 0;
        if (new_num > old_num)
            result = allocator.add_fragments(infos, *this);
        else if (new_num < old_num)
            allocator.drop_fragments(*this);
        allocator.report_built(*this);
        if (result == 0 && is_partial)
            allocator.free_old_partial(*this);
        return result;
    }
};

#endif
