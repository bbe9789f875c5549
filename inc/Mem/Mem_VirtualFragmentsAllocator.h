#ifndef MEM_VIRTUALFRAGMENTSALLOCATOR_H
#define MEM_VIRTUALFRAGMENTSALLOCATOR_H

#include "Mem/Mem_FragmentsAllocator.h"
#include "mempager_export.h"

#include <cstddef>
#include <utility>

struct Mem_FragmentsResize;

/// One fragment in ordinary memory.
struct Mem_VirtualFragmentInfo {
    size_t IndexStart; ///< its first byte in the buffer
    size_t IndexEnd;   ///< its last byte in the buffer
    void* buffer;      ///< its memory, owned by the allocator
};

/// A buffer whose fragments are blocks of `operator new`, all of them addressable at any time: for
/// large buffers that need no contiguous stretch of address space.
///
/// An access costs a division. A pointer stays good until its fragment is released: a Reallocate()
/// that succeeds releases the fragment that changes its size and those past the new end, one that
/// fails none.
///
/// The memory of a fragment is as `operator new` gives it, in its alignment and not cleared.
///
/// Threads: the two pointer operations may run side by side; Reallocate() and destruction not
/// beside anything else.
class MEMPAGER_EXPORT Mem_VirtualFragmentsAllocator final : public Mem_FragmentsAllocator
{
public:
    /// Allocates all fragments; see the base class for the arguments. Without memory for them
    /// nothing is kept, IsValid() is false and the log says why.
    /// @throws std::bad_alloc for want of memory for the list of fragments, with nothing kept.
    Mem_VirtualFragmentsAllocator(size_t element_size, size_t elements, unsigned int fragment_size);

    /// Releases all fragments.
    ~Mem_VirtualFragmentsAllocator() override;

    /// A plain copy of the members, which would free the same fragments a second time.
    [[deprecated("both copies would free the fragments: move it")]] Mem_VirtualFragmentsAllocator(
        const Mem_VirtualFragmentsAllocator&) = default;
    /// The same.
    [[deprecated("both copies would free the fragments: move it")]] Mem_VirtualFragmentsAllocator&
    operator=(const Mem_VirtualFragmentsAllocator&) = default;

    /// Takes the fragments, where they are. `other` isn't valid any more.
    Mem_VirtualFragmentsAllocator(Mem_VirtualFragmentsAllocator&& other) noexcept { swap(other); }
    /// The same; what was held before is freed.
    Mem_VirtualFragmentsAllocator& operator=(Mem_VirtualFragmentsAllocator&& other) noexcept
    {
        Mem_VirtualFragmentsAllocator taken(std::move(other));
        swap(taken);
        return *this;
    }

    void* GetPointerAtIndex(size_t index) override
    {
        if (!valid || index >= total_buf_size)
            return refuse("Mem_VirtualFragmentsAllocator::GetPointerAtIndex", index);
        return static_cast<char*>(fragments[index / fragment_size].buffer) + index % fragment_size;
    }

    void* GetRangeFromIndex(size_t index, size_t& length) override
    {
        if (!valid || index >= total_buf_size)
            return refuse("Mem_VirtualFragmentsAllocator::GetRangeFromIndex", index);
        const Mem_VirtualFragmentInfo& info = fragments[index / fragment_size];
        const size_t rest = info.IndexEnd - index + 1;
        length = length < rest ? length : rest;
        return static_cast<char*>(info.buffer) + index % fragment_size;
    }

private:
    friend struct Mem_TestAccess;
    friend struct Mem_FragmentsResize;

    void swap(Mem_VirtualFragmentsAllocator& other) noexcept
    {
        swap_layout(other);
        std::swap(fragments, other.fragments);
    }

    int reallocate_fragments(size_t new_fragments_num, size_t new_total_buf_size,
                             unsigned int new_last_fragment_size, bool is_partial) override;

    void* refuse(const char* function, size_t index) const;

    // Fragments
    int allocate_fragments(Mem_VirtualFragmentInfo* infos, size_t first, size_t count,
                           unsigned int full_size, unsigned int last_size);
    void abort_allocation(Mem_VirtualFragmentInfo* infos, size_t first, size_t count, size_t failed,
                          unsigned int size);
    void free_fragments(Mem_VirtualFragmentInfo* infos, size_t first, size_t count);

    // Resize
    int carry_over(Mem_VirtualFragmentInfo* infos, const Mem_FragmentsResize& resize);
    int copy_partial(Mem_VirtualFragmentInfo* infos, const Mem_FragmentsResize& resize);
    int add_fragments(Mem_VirtualFragmentInfo* infos, const Mem_FragmentsResize& resize);
    void drop_fragments(const Mem_FragmentsResize& resize);
    void report_built(const Mem_FragmentsResize& resize) const;
    void free_old_partial(const Mem_FragmentsResize& resize);
    int allocate_and_copy_fragment(Mem_VirtualFragmentInfo& old_info, unsigned int old_size,
                                   Mem_VirtualFragmentInfo& new_info, unsigned int new_size);

    Mem_VirtualFragmentInfo* fragments = nullptr; // fragments_num of them
};

#endif
