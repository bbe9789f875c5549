#ifndef MEMPAGER_BUFFER_H
#define MEMPAGER_BUFFER_H

#include "mempager/cursor.h"
#include "mempager/file.h"
#include "mempager/store.h"

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <ranges>
#include <system_error>
#include <type_traits>
#include <utility>

namespace mempager
{
/// Any number of elements in pager memory: a resizable array that needn't fit into the address
/// space, nor into memory. It lies in fragments, of which a few are mapped while they are used.
///
///     mempager::buffer<double> values;
///     for (double value; std::cin >> value;)
///         values.push_back(value);
///     std::ranges::sort(values.elements());
///     for (std::span<const double> part : std::as_const(values).parts())
///         write(part);
///
/// The memory is shared memory, up to MEM_MemoryConfiguration::SetSwapMaxSizeInMb() (1500 MB), and
/// temp files beyond that, so that data needn't fit into memory either: files of 1024 MB each in
/// /var/tmp, 10 GB of them at most, unless SetFileHeapParmeters() says otherwise; both are in
/// Mem/Mem_Configuration.h. What passes through them in order is as fast as on plain memory while
/// the pager's cache holds them, and as the disk else.
/// Sorting goes through all of them a few times; sorting runs of 64 MB, say, and merging these, as
/// examples/external_sort.cpp does, goes through them twice. A merge takes a cursor for each run,
/// by elements(1), and spans by cursor::run_from().
///
/// Growing copies one fragment at most, so that reserve() is needed only where a lack of memory has
/// to be known beforehand.
///
/// The buffer itself has no way to its elements: that is a cursor, which holds the mappings, and
/// which elements() and parts() make. So a buffer that nobody uses takes no address space, and
/// threads don't meet, but where they ask for the same elements. Keep the cursor where many
/// elements are used one by one.
///
///     mempager::buffer<float> image(width * height, {.together = width});
///     const auto pixels = image.elements();
///     for (std::span<float> row : pixels.rows())
///         blur(row);
///     pixels.rows()[y][x] = 1;
///
/// Errors: what can fail throws error and leaves the buffer as it was, and has a form with a
/// std::error_code as its last argument. Growing fails with no_memory, too_large, in_use while a
/// cursor lives, and no_room. Shrinking, freeing and moving need nothing.
///
/// Ownership: alone; move it. A buffer moved from is empty, with the layout {}.
/// Threads: as a std::vector: any number may use the const operations, and elements() and parts()
/// of a buffer that isn't const, at one time; the others are for one thread, with no other in the
/// buffer. All that the threads share they do through cursors, one for each.
template <element T>
class buffer
{
public:
    /// As ranges of the standard library name it.
    using value_type = T;
    /// As ranges of the standard library name it.
    using size_type = std::size_t;

    /// No elements.
    buffer() : buffer(layout{}) {}
    /// No elements yet, to be laid out so.
    explicit buffer(const layout& how) : m_store(std::make_shared<detail::store<T>>(how)) {}

    /// `size` elements with the value T().
    explicit buffer(std::size_t size, const layout& how = {}) requires std::default_initializable<T>
        : buffer(how)
    {
        m_store->grow(size, true);
        m_store->unmap();
    }
    /// The same without an exception: `code` tells a failure, and is cleared otherwise.
    buffer(std::size_t size, std::error_code& code) requires std::default_initializable<T>
        : buffer(size, layout{}, code)
    {
    }
    /// The same without an exception: `code` tells a failure, and is cleared otherwise.
    buffer(std::size_t size, const layout& how,
           std::error_code& code) requires std::default_initializable<T>
        : buffer(detail::told(code, [&] { return buffer(size, how); }))
    {
    }

    /// `size` elements whose values are whatever the memory has.
    buffer(std::size_t size, for_overwrite_t, const layout& how = {}) : buffer(how)
    {
        m_store->grow(size, false);
        m_store->unmap();
    }
    /// The same without an exception: `code` tells a failure, and is cleared otherwise.
    buffer(std::size_t size, for_overwrite_t, const layout& how, std::error_code& code)
        : buffer(detail::told(code, [&] { return buffer(size, for_overwrite, how); }))
    {
    }

    /// Takes over what the other has, which holds nothing from then on.
    buffer(buffer&&) noexcept = default;
    /// Takes over what the other has, which holds nothing from then on.
    buffer& operator=(buffer&&) noexcept = default;
    ~buffer() = default;

    /// Elements.
    std::size_t size() const noexcept { return m_store == nullptr ? 0 : m_store->size(); }
    /// Whether there is none.
    bool empty() const noexcept { return size() == 0; }

    /// Elements that there is memory for.
    std::size_t capacity() const noexcept { return m_store == nullptr ? 0 : m_store->capacity(); }

    /// All elements, to read and write; of a const buffer, to read. See cursor for all that can be
    /// done with them.
    /// @param most the most fragments that it keeps mapped, for as long as it lives, whatever the
    ///        limit of the pager's cache: of many cursors, each should keep few.
    /// @throws error with in_use if another thread resizes the buffer, std::bad_alloc.
    cursor<T> elements(std::size_t most = 16) { return {store(), most}; }
    /// The same without an exception: `code` tells a failure, and is cleared otherwise.
    cursor<T> elements(std::error_code& code)
    {
        return detail::told(code, [this] { return elements(); });
    }
    /// The same for reading only.
    cursor<const T> elements(std::size_t most = 16) const
    {
        return m_store == nullptr ? cursor<const T>() : cursor<const T>(m_store, most);
    }
    /// The same without an exception: `code` tells a failure, and is cleared otherwise.
    cursor<const T> elements(std::error_code& code) const
    {
        return detail::told(code, [this] { return elements(); });
    }

    /// All elements in order, a std::span for each fragment. Each stays good while the two behind
    /// it are used, and may end with the third.
    owned_parts<T> parts() { return owned_parts<T>(elements(1)); }
    /// The same for reading only.
    owned_parts<const T> parts() const { return owned_parts<const T>(elements(1)); }

    /// Sets the size. New elements have the value T(), or none if asked so. Fragments that aren't
    /// needed any more are freed. At most one fragment is copied, whatever the buffer's size.
    void resize(std::size_t size) requires std::default_initializable<T> { set_size(size, true); }
    /// The same without an exception: `code` tells a failure, and is cleared otherwise.
    void resize(std::size_t size, std::error_code& code) requires std::default_initializable<T>
    {
        detail::told(code, [&] { resize(size); });
    }
    /// The same, with new elements that have no value yet.
    void resize(std::size_t size, for_overwrite_t) { set_size(size, false); }
    /// The same without an exception: `code` tells a failure, and is cleared otherwise.
    void resize(std::size_t size, for_overwrite_t, std::error_code& code)
    {
        detail::told(code, [&] { resize(size, for_overwrite); });
    }

    /// Makes sure that the buffer has memory for `size` elements.
    void reserve(std::size_t size)
    {
        const auto lock = alone("buffer::reserve");
        m_store->raise_capacity(size, false, false);
        m_store->unmap();
    }
    /// The same without an exception: `code` tells a failure, and is cleared otherwise.
    void reserve(std::size_t size, std::error_code& code)
    {
        detail::told(code, [&] { reserve(size); });
    }

    /// Appends an element. The last fragment stays mapped for the next, until unmap() or any other
    /// change of the size.
    void push_back(const T& value)
    {
        if (m_store == nullptr || m_store->in_use() || !m_store->put_at_hand(value)) [[unlikely]]
            put(value);
    }
    /// The same without an exception: `code` tells a failure, and is cleared otherwise.
    void push_back(const T& value, std::error_code& code)
    {
        detail::told(code, [&] { push_back(value); });
    }

    /// Gives back the mapping that push_back() has kept.
    void unmap() noexcept
    {
        if (m_store != nullptr)
            m_store->unmap();
    }

    /// Removes the last element, which there must be. @throws error with in_use.
    void pop_back() { set_size(size() - 1, false); }
    /// The same without an exception: `code` tells a failure, and is cleared otherwise.
    void pop_back(std::error_code& code)
    {
        detail::told(code, [this] { pop_back(); });
    }

    /// Appends the elements of `range`, all of them or none.
    template <std::ranges::input_range Range>
    requires std::convertible_to<std::ranges::range_reference_t<Range>, T>
    void append(Range&& range)
    {
        const auto lock = alone("buffer::append");
        const std::size_t before = m_store->size();
        try {
            put_all(range);
        } catch (...) {
            m_store->cut(before);
            throw;
        }
        m_store->unmap();
    }
    /// The same without an exception: `code` tells a failure, and is cleared otherwise.
    template <std::ranges::input_range Range>
    requires std::convertible_to<std::ranges::range_reference_t<Range>, T>
    void append(Range&& range, std::error_code& code)
    {
        detail::told(code, [&] { append(std::forward<Range>(range)); });
    }

    /// Removes and frees all elements. @throws error with in_use.
    void clear() { set_size(0, false); }
    /// The same without an exception: `code` tells a failure, and is cleared otherwise.
    void clear(std::error_code& code)
    {
        detail::told(code, [this] { clear(); });
    }

    /// Writes the bytes of all elements to the file, and nothing else. A file of that name is
    /// replaced when the new one is whole, so a failure leaves the old one.
    /// @param progress called as progress(bytes done, bytes in all), also at the end. What it
    ///        throws ends the work, in both forms.
    /// @throws std::system_error with the system's number and the file's name; error.
    template <progress_function Progress = no_progress>
    void save(const std::filesystem::path& path, Progress progress = {}) const
    {
        detail::new_file file(path);
        const std::uint64_t all = std::uint64_t{size()} * sizeof(T);
        std::uint64_t done = 0;
        for (const std::span<const T> part : parts()) {
            file.write(std::as_bytes(part));
            progress(done += part.size_bytes(), all);
        }
        file.commit();
    }
    /// The same without an exception: `code` tells a failure, and is cleared otherwise.
    void save(const std::filesystem::path& path, std::error_code& code) const
    {
        save(path, no_progress(), code);
    }
    /// The same without an exception: `code` tells a failure, and is cleared otherwise.
    template <progress_function Progress>
    void save(const std::filesystem::path& path, Progress progress, std::error_code& code) const
    {
        detail::told(code, [&] { save(path, std::ref(progress)); });
    }

    /// Replaces all elements by those of a file as save() writes it. There has to be memory for
    /// the old and the new ones together, or use clear() first.
    /// @throws as save(), and error with bad_file if the file isn't a whole number of elements.
    template <progress_function Progress = no_progress>
    void load(const std::filesystem::path& path, Progress progress = {})
    {
        const auto lock = alone("buffer::load");
        detail::old_file file(path);
        const std::uint64_t all = file.size();
        if (all % sizeof(T) != 0)
            detail::fail(errc::bad_file, "buffer::load");
        const layout how{m_store->together, m_store->per_fragment * sizeof(T)};
        buffer fresh(static_cast<std::size_t>(all / sizeof(T)), for_overwrite, how);
        std::uint64_t done = 0;
        for (const std::span<T> part : fresh.parts()) {
            file.read(std::as_writable_bytes(part));
            progress(done += part.size_bytes(), all);
        }
        m_store->take(*fresh.m_store);
    }
    /// The same without an exception: `code` tells a failure, and is cleared otherwise.
    void load(const std::filesystem::path& path, std::error_code& code)
    {
        load(path, no_progress(), code);
    }
    /// The same without an exception: `code` tells a failure, and is cleared otherwise.
    template <progress_function Progress>
    void load(const std::filesystem::path& path, Progress progress, std::error_code& code)
    {
        detail::told(code, [&] { load(path, std::ref(progress)); });
    }

private:
    using alone_type = typename detail::store<T>::alone;

    const std::shared_ptr<detail::store<T>>& store()
    {
        if (m_store == nullptr)
            m_store = std::make_shared<detail::store<T>>(layout{});
        return m_store;
    }

    alone_type alone(const char* operation) { return alone_type(*store(), operation); }

    void put(const T& value)
    {
        const auto lock = alone("buffer::push_back");
        m_store->put(value);
    }

    void set_size(std::size_t size, bool with_values)
    {
        const auto lock = alone("buffer::resize");
        if (size <= m_store->size())
            return m_store->cut(size);
        m_store->grow(size, with_values);
        m_store->unmap();
    }

    template <class Range>
    void put_all(Range& range)
    {
        if constexpr (std::ranges::sized_range<Range>)
            m_store->raise_capacity(m_store->size() + std::size_t(std::ranges::size(range)), true,
                                    false);
        if constexpr (std::ranges::contiguous_range<Range> && std::ranges::sized_range<Range> &&
                      std::same_as<std::ranges::range_value_t<Range>, T>)
            m_store->put_all({std::ranges::data(range), std::size_t(std::ranges::size(range))});
        else
            for (auto&& value : range)
                m_store->put(static_cast<T>(value));
    }

    std::shared_ptr<detail::store<T>> m_store; // null: moved from
};
} // namespace mempager

#endif
