#ifndef MEMPAGER_PIECE_H
#define MEMPAGER_PIECE_H

#include "Mem/Mem_MemPager.h"
#include "Zor/Zor_Buffer.h"
#include "mempager/error.h"

#include <atomic>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <span>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace mempager
{
/// What can lie in pager memory: it is moved by copying its bytes, and other processes may see it.
/// Don't put pointers there: they mean nothing to others.
template <class T>
concept element = std::is_trivially_copyable_v<T> && std::same_as<T, std::remove_cv_t<T>> &&
                  alignof(T) <= 4096;

/// Asks for elements without a value, where all will be written anyway: of memory that nobody has
/// touched yet this spares one of two passes.
struct for_overwrite_t {
    explicit for_overwrite_t() = default;
};
/// The one value of its kind.
inline constexpr for_overwrite_t for_overwrite{};

namespace detail
{
/// A handle that stays where it is while guards hold its mappings. Its owner gives it up, and then
/// the last guard deletes it.
struct held {
    MEM_PagerInfo handle;
    std::atomic<bool> given_up = false;

    bool is_mapped() const noexcept { return handle.Ptr() != nullptr; }
};

struct give_up {
    void operator()(held* of) const noexcept
    {
        if (of->is_mapped())
            of->given_up = true;
        else
            delete of;
    }
};
using owned_handle = std::unique_ptr<held, give_up>;
} // namespace detail

/// Elements for as long as they are mapped: a std::span<T> that ends the mapping with its life,
/// however the scope is left. Give it a name: `const auto values = samples.map();`. Copies of the
/// span part, as `std::span<T> values = samples.map();` makes one, hold no mapping.
///
/// A piece can be mapped several times over; it stays mapped until the last guard is gone. A guard
/// may be moved, also to another thread, and what it was made from may be moved and may end: the
/// memory stays until the guard goes. Giving back allocates nothing and doesn't fail.
///
/// Threads: one for each guard. Those that outlive their piece are for one thread.
template <class T>
class [[nodiscard]] mapped : public std::span<T>
{
public:
    /// Nothing.
    mapped() noexcept = default;

    /// Takes over a mapping that the handle holds, of `count` elements. For this layer.
    mapped(detail::held& from, std::size_t count) noexcept
        : std::span<T>(static_cast<T*>(from.handle.Ptr()), count), m_from(&from)
    {
    }

    /// Takes over what the other has, which holds nothing from then on.
    mapped(mapped&& other) noexcept
        : std::span<T>(std::exchange(other.elements(), {})),
          m_from(std::exchange(other.m_from, nullptr))
    {
    }
    /// Takes over what the other has, which holds nothing from then on.
    mapped& operator=(mapped&& other) noexcept
    {
        mapped taken(std::move(other));
        std::swap(elements(), taken.elements());
        std::swap(m_from, taken.m_from);
        return *this;
    }
    ~mapped()
    {
        if (m_from == nullptr)
            return;
        const bool given_up = m_from->given_up.load(std::memory_order_relaxed);
        m_from->handle.Unmap();
        if (given_up && !m_from->is_mapped()) [[unlikely]]
            delete m_from;
    }

    /// Ends the mapping before the scope does; empty from then on.
    void unmap() noexcept { *this = mapped(); }

private:
    std::span<T>& elements() noexcept { return *this; }

    detail::held* m_from = nullptr;
};

namespace detail
{
/// The bytes of `count` elements in one piece.
template <class T>
unsigned int bytes_of(std::size_t count, const char* operation)
{
    constexpr std::size_t most = std::numeric_limits<unsigned int>::max() / sizeof(T);
    if (count > most)
        fail(errc::too_large, operation,
             count <= SIZE_MAX / sizeof(T) ? count * sizeof(T) : UINT64_MAX);
    return static_cast<unsigned int>(count * sizeof(T));
}

template <class T>
mapped<T> map(const owned_handle& from, std::size_t count, const char* operation)
{
    if (from == nullptr)
        return {};
    if (from->handle.Map() != 0)
        fail(errc::no_room, operation, count * sizeof(T));
    return mapped<T>(*from, count);
}
} // namespace detail

/// Owns elements in pager memory, together in one piece of at most 4294967295 bytes.
///
///     mempager::piece<double> samples(1000000);      // zeros
///     {
///         auto values = samples.map();               // a std::span<double>
///         std::ranges::generate(values, measure);
///     }                                              // not mapped any more
///     const double most = std::ranges::max(samples.map_const());
///
/// Between mappings the elements keep their values and take no address space, once the pager's
/// cache needs theirs. Their address may differ from one mapping to the next.
///
/// Ownership: alone; move it. The memory is freed with the piece and the last guard on it.
/// Threads: any may map one piece, at one time too; moving and destroying it is for one.
template <element T>
class piece
{
public:
    /// As ranges of the standard library name it.
    using element_type = T;

    /// Nothing: no elements, no memory.
    piece() noexcept = default;

    /// `count` elements with the value T(). Nothing for a count of 0.
    explicit piece(std::size_t count) requires std::default_initializable<T>
    {
        mapped<T> born = allocate(count);
        std::uninitialized_value_construct_n(born.data(), born.size());
    }
    /// The same without an exception: `code` tells a failure, and is cleared otherwise.
    piece(std::size_t count, std::error_code& code) requires std::default_initializable<T>
        : piece(detail::told(code, [&] { return piece(count); }))
    {
    }

    /// `count` elements whose values are whatever the memory has.
    piece(std::size_t count, for_overwrite_t) { allocate(count).unmap(); }
    /// The same without an exception: `code` tells a failure, and is cleared otherwise.
    piece(std::size_t count, for_overwrite_t, std::error_code& code)
        : piece(detail::told(code, [&] { return piece(count, for_overwrite); }))
    {
    }

    /// Takes over what the other has, which holds nothing from then on.
    piece(piece&& other) noexcept
        : m_handle(std::move(other.m_handle)), m_size(std::exchange(other.m_size, 0))
    {
    }
    /// Takes over what the other has, which holds nothing from then on.
    piece& operator=(piece&& other) noexcept
    {
        piece taken(std::move(other));
        std::swap(m_handle, taken.m_handle);
        std::swap(m_size, taken.m_size);
        return *this;
    }
    ~piece() = default;

    /// Elements.
    std::size_t size() const noexcept { return m_size; }
    /// Whether there is none.
    bool empty() const noexcept { return m_size == 0; }

    /// The elements, to read and write. Of views that wait in the pager's cache this costs no
    /// system call. @throws error with no_room.
    mapped<T> map() { return detail::map<T>(m_handle, m_size, "piece::map"); }
    /// The same without an exception: `code` tells a failure, and is cleared otherwise.
    mapped<T> map(std::error_code& code)
    {
        return detail::told(code, [this] { return map(); });
    }

    /// The elements, to read.
    mapped<const T> map_const() const
    {
        return detail::map<const T>(m_handle, m_size, "piece::map_const");
    }
    /// The same without an exception: `code` tells a failure, and is cleared otherwise.
    mapped<const T> map_const(std::error_code& code) const
    {
        return detail::told(code, [this] { return map_const(); });
    }

    /// Asks the system to take the physical memory of the elements back, where they are mapped or
    /// wait in the cache: they keep their values, and the next touch brings a page back. For what
    /// won't be used for a while. Not done if the system refuses; the log says so then.
    void reduce_working_set() const noexcept
    {
        if (m_handle != nullptr)
            m_handle->handle.ReduceWorkingSet();
    }

    /// Says that `count` elements from `first` on are about to be written, while a guard keeps them
    /// mapped: their pages are found at once, which takes less than one by one at their first
    /// touch. @return whether they are ready; false too if they aren't mapped, or not there.
    bool prefetch(std::size_t first, std::size_t count) noexcept
    {
        return is_ready(first, count, MEM_TO_WRITE);
    }

    /// The same of elements that are about to be read only.
    bool prefetch_const(std::size_t first, std::size_t count) const noexcept
    {
        return is_ready(first, count, MEM_TO_READ);
    }

    /// Some 150 bytes by which another process finds the elements: see foreign. Send them after
    /// the last write, and keep the piece until the other process has mapped it once. Empty for
    /// an empty piece.
    std::vector<std::byte> descriptor() const
    {
        if (m_handle == nullptr)
            return {};
        Zor_oBuffer out;
        MEM_MemPager::GetHandle()->StreamMemInfo(m_handle->handle, out);
        const std::string text = out.Bytes();
        if (!out)
            throw std::bad_alloc();
        const auto bytes = std::as_bytes(std::span(text));
        return {bytes.begin(), bytes.end()};
    }
    /// The same without an exception: `code` tells a failure, and is cleared otherwise.
    std::vector<std::byte> descriptor(std::error_code& code) const
    {
        return detail::told(code, [this] { return descriptor(); });
    }

    /// Allocates as the constructor for_overwrite does, and leaves the new elements mapped once: a
    /// first use needn't map them again. @param born the guard of that mapping.
    piece(std::size_t count, for_overwrite_t, mapped<T>& born) { born = allocate(count); }

private:
    bool is_ready(std::size_t first, std::size_t count, MEM_ACCESS access) const noexcept
    {
        return m_handle != nullptr && first <= m_size && count <= m_size - first &&
               m_handle->handle.Prefetch(first * sizeof(T), count * sizeof(T), access) == 0;
    }

    mapped<T> allocate(std::size_t count)
    {
        if (count == 0)
            return {};
        const unsigned int bytes = detail::bytes_of<T>(count, "piece");
        detail::owned_handle made(new detail::held);
        constexpr int alignment = alignof(T);
        if (MEM_MemPager::GetHandle()->Allocate(bytes, &made->handle, alignment) != 0)
            detail::fail(errc::no_memory, "piece", bytes);
        m_handle = std::move(made);
        m_size = count;
        return mapped<T>(*m_handle, count); // a piece is born mapped
    }

    detail::owned_handle m_handle; // null: empty
    std::size_t m_size = 0;
};

/// Elements that another process owns in a piece, read where they lie, by what that process's
/// piece::descriptor() gave:
///
///     std::error_code failure;
///     const mempager::foreign<double> samples(bytes, failure);
///     if (!failure)
///         plot(samples.map());
///
/// Nothing is opened before the first map(). From then on the elements stay for as long as any
/// copy of this lives, whatever becomes of the other process; what it writes meanwhile is seen.
/// Who has only this can't write: the system ends a process that tries.
///
/// Ownership: a share; copies are cheap.
/// Threads: any may map and copy; assigning and destroying is for one.
template <element T>
class foreign
{
public:
    /// As ranges of the standard library name it.
    using element_type = const T;

    /// Nothing.
    foreign() noexcept = default;

    /// @throws error with bad_descriptor for bytes that are no descriptor, whose piece isn't a
    ///         whole number of elements, or was made by this process or a parent of it.
    explicit foreign(std::span<const std::byte> descriptor)
    {
        m_handle.reset(new detail::held);
        m_handle->handle.GetUnmappedInfo(MEM_MemPager::GetHandle()->Register(descriptor));
        if (!m_handle->handle.IsValid() || m_handle->handle.GetAllocatedSize() % sizeof(T) != 0)
            detail::fail(errc::bad_descriptor, "foreign");
    }
    /// The same without an exception: `code` tells a failure, and is cleared otherwise.
    foreign(std::span<const std::byte> descriptor, std::error_code& code)
        : foreign(detail::told(code, [&] { return foreign(descriptor); }))
    {
    }

    /// Another handle on the same piece; it holds no mapping.
    foreign(const foreign& other) : m_handle(copy(other.m_handle)) {}
    /// Another handle on the same piece; it holds no mapping.
    foreign& operator=(const foreign& other)
    {
        m_handle = copy(other.m_handle);
        return *this;
    }
    /// Takes over what the other has, which holds nothing from then on.
    foreign(foreign&&) noexcept = default;
    /// Takes over what the other has, which holds nothing from then on.
    foreign& operator=(foreign&&) noexcept = default;
    ~foreign() = default;

    /// Elements.
    std::size_t size() const noexcept
    {
        return m_handle == nullptr ? 0 : m_handle->handle.GetAllocatedSize() / sizeof(T);
    }
    /// Whether there is none.
    bool empty() const noexcept { return size() == 0; }

    /// The elements, to read. @throws error with no_room, also if the other process is gone with
    /// them, and with bad_descriptor if they lie where no such element can.
    mapped<const T> map() const
    {
        auto elements = detail::map<const T>(m_handle, size(), "foreign::map");
        if (reinterpret_cast<std::uintptr_t>(elements.data()) % alignof(T) != 0)
            detail::fail(errc::bad_descriptor, "foreign::map");
        return elements;
    }
    /// The same without an exception: `code` tells a failure, and is cleared otherwise.
    mapped<const T> map(std::error_code& code) const
    {
        return detail::told(code, [this] { return map(); });
    }

private:
    static detail::owned_handle copy(const detail::owned_handle& other)
    {
        detail::owned_handle made;
        if (other != nullptr) {
            made.reset(new detail::held);
            made->handle.GetUnmappedInfo(other->handle);
        }
        return made;
    }

    detail::owned_handle m_handle; // null: nothing
};
} // namespace mempager

#endif
