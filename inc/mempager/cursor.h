#ifndef MEMPAGER_CURSOR_H
#define MEMPAGER_CURSOR_H

#include "mempager/store.h"

#include <algorithm>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <span>
#include <stdexcept>
#include <type_traits>
#include <utility>
#include <vector>

namespace mempager
{
namespace detail
{
/// The fragments that one cursor has mapped, and the one that it used last.
template <class T>
class window
{
public:
    using owner = store<std::remove_const_t<T>>;

    /// Under a shortage of address space the last ones stay mapped all the same.
    static constexpr std::size_t kept = 4;

    window(std::shared_ptr<owner> from, std::size_t most)
        : m_places((from->size() + from->per_fragment - 1) / from->per_fragment),
          m_most(std::max(most, kept)),
          m_size(from->size()),
          m_store(std::move(from))
    {
        m_mapped.reserve(std::min(m_most, m_places.size()));
        m_store->enter();
    }
    ~window()
    {
        m_places.clear();
        m_store->leave();
    }
    window(const window&) = delete;
    window& operator=(const window&) = delete;

    T& operator[](std::size_t number)
    {
        if (number - m_first < m_count) [[likely]]
            return m_base[number - m_first];
        T* const element = go_to(number);
        if (element == nullptr) [[unlikely]]
            refuse(number);
        return *element;
    }

    /// From an element to its fragment's end.
    std::span<T> run_from(std::size_t number)
    {
        T& element = (*this)[number];
        return {&element, m_count - (number - m_first)};
    }

    std::size_t size() const noexcept { return m_size; }
    std::size_t per_fragment() const noexcept { return m_store->per_fragment; }
    std::size_t together() const noexcept { return m_store->together; }

private:
    struct place {
        mapped<T> view; // empty: not mapped
        std::uint64_t last_use = 0;
    };

    // Null if it can't be had. As it throws nothing, a loop around it can keep its values in
    // registers also where a destructor waits for the loop's end.
    [[gnu::noinline]] T* go_to(std::size_t number) noexcept
    {
        const std::size_t fragment = number / per_fragment();
        if (number >= m_size || !bring_in(fragment))
            return nullptr;
        place& there = m_places[fragment];
        there.last_use = ++m_clock;
        m_base = there.view.data();
        m_first = fragment * per_fragment();
        m_count = std::min(there.view.size(), m_size - m_first);
        return m_base + (number - m_first);
    }

    [[noreturn, gnu::noinline]] void refuse(std::size_t number) const
    {
        if (number >= m_size)
            throw std::out_of_range("mempager::cursor: behind the last element");
        const piece<std::remove_const_t<T>>& there = m_store->fragment(number / per_fragment());
        fail(errc::no_room, "cursor", there.size() * sizeof(T));
    }

    bool bring_in(std::size_t fragment) noexcept
    {
        if (!m_places[fragment].view.empty())
            return true;
        if (m_mapped.size() == m_most)
            give_up_oldest();
        std::error_code code;
        while (m_places[fragment].view = map(fragment, code), code) {
            if (m_mapped.size() < kept)
                return false;
            give_up_oldest();
            m_most = m_mapped.size() + 1; // more would only be refused again
        }
        m_mapped.push_back(fragment);
        return true;
    }

    mapped<T> map(std::size_t fragment, std::error_code& code)
    {
        if constexpr (std::is_const_v<T>)
            return m_store->fragment(fragment).map_const(code);
        else
            return m_store->fragment(fragment).map(code);
    }

    void give_up_oldest() noexcept
    {
        const auto oldest = std::ranges::min_element(
            m_mapped, {}, [this](std::size_t fragment) { return m_places[fragment].last_use; });
        m_places[*oldest].view.unmap();
        *oldest = m_mapped.back();
        m_mapped.pop_back();
    }

    T* m_base = nullptr; // of the fragment used last
    std::size_t m_first = 0;
    std::size_t m_count = 0;
    std::vector<place> m_places;       // one for each fragment
    std::vector<std::size_t> m_mapped; // the fragments that are
    std::size_t m_most;
    std::uint64_t m_clock = 0;
    std::size_t m_size;
    std::shared_ptr<owner> m_store;
};

/// What the two kinds of iterator have in common: a number. `Derived` gives operator*.
template <class Derived>
class by_number
{
public:
    using difference_type = std::ptrdiff_t;

    Derived& operator++() { return move(1); }
    Derived& operator--() { return move(-1); }
    Derived operator++(int) { return std::exchange(self(), self() + 1); }
    Derived operator--(int) { return std::exchange(self(), self() - 1); }
    Derived& operator+=(difference_type distance) { return move(distance); }
    Derived& operator-=(difference_type distance) { return move(-distance); }
    decltype(auto) operator[](difference_type distance) const
    {
        return *(static_cast<const Derived&>(*this) + distance);
    }

    friend Derived operator+(Derived at, difference_type distance) { return at += distance; }
    friend Derived operator+(difference_type distance, Derived at) { return at += distance; }
    friend Derived operator-(Derived at, difference_type distance) { return at -= distance; }
    friend difference_type operator-(const Derived& at, const Derived& from)
    {
        return static_cast<difference_type>(at.m_number - from.m_number);
    }
    friend bool operator==(const Derived& one, const Derived& other)
    {
        return one.m_number == other.m_number;
    }
    friend std::strong_ordering operator<=>(const Derived& one, const Derived& other)
    {
        return one.m_number <=> other.m_number;
    }

protected:
    by_number() = default;
    explicit by_number(std::size_t number) : m_number(number) {}

    std::size_t m_number = 0;

private:
    Derived& self() { return static_cast<Derived&>(*this); }
    Derived& move(difference_type distance)
    {
        m_number += static_cast<std::size_t>(distance);
        return self();
    }
};

/// An element's place in a buffer, as one cursor sees it.
template <class T>
class element_iterator : public by_number<element_iterator<T>>
{
public:
    using iterator_category = std::random_access_iterator_tag;
    using value_type = std::remove_const_t<T>;
    using difference_type = std::ptrdiff_t;
    using pointer = T*;
    using reference = T&;

    element_iterator() = default;
    element_iterator(window<T>* of, std::size_t number)
        : by_number<element_iterator>(number), m_window(of)
    {
    }

    T& operator*() const { return (*m_window)[this->m_number]; }
    T* operator->() const { return &**this; }

private:
    window<T>* m_window = nullptr;
};

/// A range whose elements are made when they are asked for: source[0] up to source[size() - 1].
template <class Source>
class made_range
{
public:
    class iterator : public by_number<iterator>
    {
    public:
        using iterator_concept = std::random_access_iterator_tag;
        using iterator_category = std::input_iterator_tag; // its elements have no address
        using value_type = decltype(std::declval<const Source&>()[0]);
        using difference_type = std::ptrdiff_t;
        using pointer = void;
        using reference = value_type;

        iterator() = default;
        iterator(const Source& source, std::size_t number)
            : by_number<iterator>(number), m_source(source)
        {
        }
        value_type operator*() const { return m_source[this->m_number]; }

    private:
        Source m_source;
    };

    explicit made_range(const Source& source) : m_source(source) {}

    iterator begin() const { return {m_source, 0}; }
    iterator end() const { return {m_source, size()}; }
    auto operator[](std::size_t number) const { return m_source[number]; }
    std::size_t size() const { return m_source.size(); }
    bool empty() const { return size() == 0; }

private:
    Source m_source;
};

template <class T>
struct parts_of {
    window<T>* of = nullptr;

    std::span<T> operator[](std::size_t number) const
    {
        return of->run_from(number * of->per_fragment());
    }
    std::size_t size() const
    {
        return of == nullptr ? 0 : (of->size() + of->per_fragment() - 1) / of->per_fragment();
    }
};

template <class T>
struct rows_of {
    window<T>* of = nullptr;
    std::size_t first = 0; // its number in the buffer
    std::size_t count = 0;
    std::size_t width = 1;

    std::span<T> operator[](std::size_t number) const
    {
        return of->run_from((first + number) * width).first(width);
    }
    std::size_t size() const { return count; }
};

template <class T>
struct slices_of {
    rows_of<T> rows;
    std::size_t height = 1;

    made_range<rows_of<T>> operator[](std::size_t number) const
    {
        return made_range(rows_of<T>{rows.of, number * height, height, rows.width});
    }
    std::size_t size() const { return rows.count / height; }
};
} // namespace detail

/// The elements of a buffer, as a range that is sized and of random access, with mappings of its
/// own: the way to all of them. buffer::elements() makes one.
///
///     std::vector<std::jthread> threads;
///     for (std::size_t i = 0; i < 4; ++i)
///         threads.emplace_back([&volume, i] {
///             auto mine = volume.elements();         // each thread a cursor of its own
///             const std::size_t first = mine.size() * i / 4, end = mine.size() * (i + 1) / 4;
///             std::sort(mine.begin() + first, mine.begin() + end);
///         });
///
/// The element used last costs a comparison, as any other in the same fragment does. Another
/// fragment costs a division, and, unless it is among those that the cursor has mapped, a mapping.
/// Of those there are at most `most` at a time, 16 unless told otherwise and at least 4; the one
/// whose use is longest ago goes first. Passing through large data is fastest by parts().
///
/// References, pointers and spans into the buffer stay good until the cursor has gone to `most` - 1
/// other fragments since, and in any case until it has gone to 3 others: where address space is
/// short the cursor gives up mappings, but not its last 4. The algorithms of the standard library
/// hold references to three elements at a time, so they do on any buffer what they do on a
/// std::vector, however far apart these are. Keep an iterator where you would keep a reference for
/// longer. With the cursor all of them end; iterators don't end when it is moved.
///
/// T is const for a cursor that only reads. A cursor has the size that the buffer had when it was
/// made; while it lives the buffer refuses to be resized. The buffer may be moved, and even
/// destroyed: its memory is then freed with its last cursor.
///
/// Errors: an element that can't be mapped is an error with no_room, by an exception also from
/// iterators; the next use tries again. An element behind the last is std::out_of_range.
///
/// Threads: one for each cursor, its iterators and ranges, so no std::execution::par; any number of
/// cursors on one buffer at a time, but what one writes the others must not read or write without a
/// lock between them.
template <class T>
class cursor
{
public:
    /// As ranges of the standard library name it.
    using value_type = std::remove_const_t<T>;
    /// As ranges of the standard library name it.
    using size_type = std::size_t;
    /// As ranges of the standard library name it.
    using difference_type = std::ptrdiff_t;
    /// As ranges of the standard library name it.
    using reference = T&;
    /// As ranges of the standard library name it.
    using iterator = detail::element_iterator<T>;
    /// What gives the parts, a random-access range.
    using parts_range = detail::made_range<detail::parts_of<T>>;
    /// What gives the rows, a random-access range.
    using rows_range = detail::made_range<detail::rows_of<T>>;
    /// What gives the slices, a random-access range.
    using slices_range = detail::made_range<detail::slices_of<T>>;

    /// On nothing: no elements.
    cursor() = default;

    /// For buffer::elements().
    cursor(std::shared_ptr<detail::store<value_type>> store, std::size_t most)
        : m_window(std::make_unique<detail::window<T>>(std::move(store), most))
    {
    }

    /// How many there are.
    std::size_t size() const noexcept { return m_window == nullptr ? 0 : m_window->size(); }
    /// Whether there is none.
    bool empty() const noexcept { return size() == 0; }

    /// The cursor must not be on nothing, nor moved from.
    T& operator[](std::size_t number) const { return (*m_window)[number]; }

    /// The first.
    iterator begin() const { return {m_window.get(), 0}; }
    /// Behind the last.
    iterator end() const { return {m_window.get(), size()}; }

    /// The elements from `number` to the end of their fragment, at least one; `number` is below
    /// size(). Good for as long as the class says of references.
    std::span<T> run_from(std::size_t number) const { return m_window->run_from(number); }
    /// The same without an exception: `code` tells a failure, and is cleared otherwise.
    std::span<T> run_from(std::size_t number, std::error_code& code) const
    {
        return detail::told(code, [&] { return run_from(number); });
    }

    /// All elements in order, as one std::span<T> for each fragment. A range of random access, as
    /// the next two; they end with the cursor.
    parts_range parts() const& { return parts_range({m_window.get()}); }

    /// All whole rows of `width` elements, a std::span<T> each: rows()[y][x]. A width of 0 is
    /// layout::together.
    /// @throws std::invalid_argument unless `width` divides layout::together, or by chance the
    ///         elements of a fragment: some rows would lie in two.
    rows_range rows(std::size_t width = 0) const& { return rows_range(rows_of(width)); }

    /// All whole slices of `height` rows, a range as rows() each: slices(w, h)[z][y][x].
    /// @throws std::invalid_argument as rows(), and for a height of 0.
    slices_range slices(std::size_t width, std::size_t height) const&
    {
        if (height == 0)
            throw std::invalid_argument("mempager::cursor: slices without rows");
        return slices_range({rows_of(width), height});
    }

    /// They would outlive their cursor.
    void parts() && = delete;
    void rows(std::size_t width = 0) && = delete;
    void slices(std::size_t width, std::size_t height) && = delete;

private:
    detail::rows_of<T> rows_of(std::size_t width) const
    {
        if (m_window == nullptr)
            return {};
        const std::size_t length = width != 0 ? width : m_window->together();
        if (m_window->per_fragment() % length != 0)
            throw std::invalid_argument("mempager::cursor: such rows don't lie together");
        return {m_window.get(), 0, size() / length, length};
    }

    std::unique_ptr<detail::window<T>> m_window;
};

/// The parts of a buffer with the cursor that they need, for a range-based for.
template <class T>
class owned_parts
{
public:
    /// The parts of what the cursor is on, which this keeps.
    explicit owned_parts(cursor<T> elements) : m_elements(std::move(elements)) {}

    /// The first.
    auto begin() const { return m_elements.parts().begin(); }
    /// Behind the last.
    auto end() const { return m_elements.parts().end(); }
    /// How many there are.
    std::size_t size() const { return m_elements.parts().size(); }

private:
    cursor<T> m_elements;
};
} // namespace mempager

#endif
