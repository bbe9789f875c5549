#ifndef MEM_FRAGMENTSALLOCATOR_H
#define MEM_FRAGMENTSALLOCATOR_H

#include "mempager_export.h"

#include <cstddef>
#include <utility>

/// One large buffer, stored as a run of fragments: no single allocation or mapping has to be as
/// large as the buffer, and it is resized without moving the fragments that stay.
///
/// An index is the number of a byte in the buffer, never of an element; element `e` begins at
/// byte `e` times the element size. A fragment holds a whole number of elements, so that none
/// lies in two. Every fragment but the last has the same size.
///
///     Mem_MemFragmentsAllocator volume(sizeof(double), elements, 0);
///     if (!volume.IsValid())
///         return;                                             // no memory; the log says why
///     for (std::size_t at = 0, length; at < volume.GetTotalBufferSize(); at += length) {
///         length = volume.GetTotalBufferSize() - at;          // as much as there is in one go
///         void* const bytes = volume.GetRangeFromIndex(at, length);
///         if (bytes == nullptr)
///             return;
///         use(bytes, length);
///     }
///
/// What stores the fragments is the derived class's affair: Mem_MemFragmentsAllocator keeps them
/// in pager memory, two mapped at a time, Mem_VirtualFragmentsAllocator in ordinary memory, and
/// Mem_DummyFragmentsAllocator shows a buffer of the caller's in the same form.
///
/// Errors: no operation throws but for want of memory for the list of the fragments, which is
/// std::bad_alloc and changes nothing. Everything else is told by the result and a log line.
/// An allocator whose construction failed isn't valid: its pointer operations return null, its
/// Reallocate() -1.
///
/// Threads: one at a time for each allocator, reading included; different allocators need no
/// care. A derived class may allow more.
///
/// Copies are plain copies of the members. Two copies of an allocator that owns fragments would
/// both free them: don't make any, the compiler warns of it. Move them, as a std::vector does with
/// its elements.
class MEMPAGER_EXPORT Mem_FragmentsAllocator
{
public:
    /// The fragment size in bytes that a request of 0 selects.
    static constexpr unsigned int kDefaultFragmentSize = 78643200;

    /// Lays out `elements` elements of `element_size` bytes in fragments of `fragment_size` bytes
    /// or the next smaller multiple of the element size; 0 selects kDefaultFragmentSize.
    ///
    /// A buffer without bytes, an element that is larger than a fragment, and a buffer of more
    /// bytes than 64 bits count leave the allocator invalid, with a line at level 3.
    Mem_FragmentsAllocator(size_t element_size, size_t elements, unsigned int fragment_size);
    virtual ~Mem_FragmentsAllocator();

    /// A plain copy of the members; see above.
    Mem_FragmentsAllocator(const Mem_FragmentsAllocator&) = default;
    /// The same.
    Mem_FragmentsAllocator& operator=(const Mem_FragmentsAllocator&) = default;

    /// The byte at `index`. The bytes behind it may be touched up to the fragment's end.
    /// @return null, with a log line, for an index past the end and for a fragment that can't be
    ///         had.
    virtual void* GetPointerAtIndex(size_t index) = 0;

    /// The same, and how far it goes: takes the wanted bytes in `length` and returns the bytes
    /// there that may be touched, fewer where the fragment ends. A failure leaves `length` alone.
    virtual void* GetRangeFromIndex(size_t index, size_t& length) = 0;

    /// Resizes the buffer to `new_elements` elements. The bytes that both sizes have stay; new
    /// ones are as the memory came. At most one fragment is copied, whatever the buffer's size.
    ///
    /// @return 0; -1 if the allocator isn't valid, for 0 elements, for more bytes than 64 bits
    ///         count, and if there is no memory: the buffer's size and bytes are as before then.
    virtual int Reallocate(size_t new_elements);

    /// Elements in the buffer.
    size_t GetElementsNumber() const { return elements; }

    /// Bytes of a full fragment; a buffer that is smaller than that has one of its own size.
    unsigned int GetMaxFragmentSize() const { return fragment_size; }

    /// Bytes in the buffer.
    size_t GetTotalBufferSize() const { return total_buf_size; }

    /// Whether the buffer exists. Says nothing on a Mem_DummyFragmentsAllocator.
    bool IsValid() const { return valid; }

protected:
    friend struct Mem_TestAccess;

    /// Gives the storage the new layout, for Reallocate(), which sets the sizes afterwards.
    /// @param is_partial whether a fragment that both layouts have changes its size.
    /// @return 0; -1 if there is no memory, with all bytes as before.
    virtual int reallocate_fragments(size_t new_fragments_num, size_t new_total_buf_size,
                                     unsigned int new_last_fragment_size, bool is_partial) = 0;

    /// No layout: not valid, without an element.
    Mem_FragmentsAllocator() noexcept = default;

    /// Whether the constructor found a layout.
    bool has_layout() const { return fragments_num != 0; }

    /// Whether the buffer can be resized to that, with a log line if not.
    bool may_become(size_t new_elements) const;

    /// Exchanges all members of this class, for moving what owns fragments.
    void swap_layout(Mem_FragmentsAllocator& other) noexcept
    {
        std::swap(valid, other.valid);
        std::swap(element_size, other.element_size);
        std::swap(elements, other.elements);
        std::swap(fragment_size, other.fragment_size);
        std::swap(last_fragment_size, other.last_fragment_size);
        std::swap(fragments_num, other.fragments_num);
        std::swap(total_buf_size, other.total_buf_size);
    }

    bool valid = false;             ///< set by the derived constructor that has built its storage
    size_t element_size = 0;        ///< bytes
    size_t elements = 0;            ///< in the buffer
    unsigned int fragment_size = 0; ///< bytes of all fragments but the last
    unsigned int last_fragment_size = 0; ///< bytes, 1 to fragment_size
    size_t fragments_num = 0;            ///< 0 without a layout
    size_t total_buf_size = 0;           ///< bytes
};

/// A buffer of the caller's behind the interface of fragments, as one fragment. The memory stays
/// the caller's and has to outlive the allocator. Can't be resized, and IsValid() is false always.
class MEMPAGER_EXPORT Mem_DummyFragmentsAllocator final : public Mem_FragmentsAllocator
{
public:
    /// @param buffer `elements` times `element_size` bytes.
    Mem_DummyFragmentsAllocator(void* buffer, size_t element_size, size_t elements);

    /// The byte at `index`, which is not checked.
    void* GetPointerAtIndex(size_t index) override { return static_cast<char*>(buffer) + index; }

    /// The same; `length` becomes the whole rest of the buffer, whatever was wanted.
    void* GetRangeFromIndex(size_t index, size_t& length) override
    {
        length = total_buf_size - index;
        return static_cast<char*>(buffer) + index;
    }

    /// @return -1.
    int Reallocate(size_t new_elements) override;

private:
    int reallocate_fragments(size_t new_fragments_num, size_t new_total_buf_size,
                             unsigned int new_last_fragment_size, bool is_partial) override;

    void* buffer;
};

#endif
