#ifndef MEMPAGER_STORE_H
#define MEMPAGER_STORE_H

#include "mempager/piece.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <limits>
#include <memory>
#include <utility>
#include <vector>

namespace mempager
{
/// How the elements of a buffer lie in its fragments. Kept for the buffer's life.
struct layout {
    /// Elements that lie side by side: a fragment holds a whole number of such groups. Give the
    /// length of a row here, or of a slice, to get rows as spans. 0 is 1.
    std::size_t together = 1;

    /// The size of a fragment, about: the next smaller whole number of groups, but at least one
    /// group, and at most 4294967295 bytes.
    std::size_t fragment_bytes = std::size_t{8} << 20;
};

namespace detail
{
/// What a buffer and its cursors share: the fragments, a piece each. All but the last have
/// `per_fragment` elements; the last may have fewer.
///
/// Fragments are pieces of their own, not a Mem_MemFragmentsAllocator: that one remembers for all
/// its users which two fragments are mapped, so it's for one thread and two places. A handle
/// counts mappings by itself and under a lock, so any number of cursors map what they need, and a
/// fragment stays mapped until the last of them has let go.
template <element T>
class store
{
public:
    explicit store(const layout& how)
        : together(std::max<std::size_t>(how.together, 1)), per_fragment(elements_for(how))
    {
    }

    /// Keeps cursors and other resizes away for a scope.
    class alone
    {
    public:
        alone(store& owner, const char* operation) : m_owner(owner)
        {
            int none = 0;
            if (!m_owner.m_users.compare_exchange_strong(none, -1, std::memory_order_acquire))
                fail(errc::in_use, operation);
        }
        ~alone() { m_owner.m_users.store(0, std::memory_order_release); }
        alone(const alone&) = delete;
        alone& operator=(const alone&) = delete;

    private:
        store& m_owner;
    };

    /// Counts a cursor, which leaves later. Threads: any.
    void enter()
    {
        int users = m_users.load(std::memory_order_relaxed);
        do {
            if (users < 0)
                fail(errc::in_use, "buffer::elements");
        } while (!m_users.compare_exchange_weak(users, users + 1, std::memory_order_acquire));
    }
    void leave() noexcept { m_users.fetch_sub(1, std::memory_order_release); }
    bool in_use() const noexcept { return m_users.load(std::memory_order_relaxed) != 0; }

    piece<T>& fragment(std::size_t number) noexcept { return m_pieces[number]; }
    std::size_t size() const noexcept { return m_size; }
    std::size_t capacity() const noexcept
    {
        return m_pieces.empty() ? 0 : (m_pieces.size() - 1) * per_fragment + m_pieces.back().size();
    }

    // What follows is for who is alone. ----------------------------------------------------------

    /// Appends one element. Its fragment stays mapped for the next.
    void put(const T& value)
    {
        if (!put_at_hand(value)) {
            const T kept = value; // it may lie in what is replaced now
            turn_to_end();
            put_at_hand(kept);
        }
    }

    /// The same if the last fragment is mapped and has capacity.
    bool put_at_hand(const T& value) noexcept
    {
        const std::size_t place = m_size - m_tail_first;
        if (place >= m_tail.size())
            return false;
        m_tail[place] = value;
        ++m_size;
        return true;
    }

    /// Appends copies of `values`, for which there is capacity.
    void put_all(std::span<const T> values)
    {
        while (!values.empty()) {
            if (m_size - m_tail_first >= m_tail.size())
                turn_to_end();
            const std::span<T> unused = m_tail.subspan(m_size - m_tail_first);
            const std::size_t count = std::min(unused.size(), values.size());
            std::copy_n(values.data(), count, unused.data());
            m_size += count;
            values = values.subspan(count);
        }
    }

    /// Sets the size, to elements with the value T() if `with_values`.
    void grow(std::size_t size, bool with_values)
    {
        if (with_values)
            clear_from(m_size, std::min(size, capacity()));
        raise_capacity(size, false, with_values);
        m_size = size;
    }

    /// Raises the capacity to `size` elements, to more if `generous`: appending one by one then
    /// copies each element once or twice. Copies one fragment at most.
    void raise_capacity(std::size_t size, bool generous, bool with_values)
    {
        if (size <= capacity())
            return;
        if (size > std::numeric_limits<std::size_t>::max() / sizeof(T))
            fail(errc::too_large, "buffer", UINT64_MAX);
        const std::size_t staying = m_pieces.size() - (last_is_short() ? 1 : 0);
        mapped<T> born;
        auto fresh = make(size - staying * per_fragment, staying, generous, with_values, born);
        m_pieces.reserve(staying + fresh.size());
        if (staying < m_pieces.size())
            copy_used(staying, fresh.front());
        // Nothing fails any more.
        unmap();
        m_pieces.resize(staying);
        for (piece<T>& made : fresh)
            m_pieces.push_back(std::move(made));
        m_tail = std::move(born);
        m_tail_first = (m_pieces.size() - 1) * per_fragment;
    }

    /// Sets a size that isn't greater, and frees the fragments behind it.
    void cut(std::size_t size) noexcept
    {
        unmap();
        m_size = size;
        const std::size_t wanted = size / per_fragment + (size % per_fragment != 0 ? 1 : 0);
        if (wanted < m_pieces.size())
            m_pieces.erase(m_pieces.begin() + static_cast<std::ptrdiff_t>(wanted), m_pieces.end());
    }

    /// Gives the mapping of the last fragment back.
    void unmap() noexcept { m_tail.unmap(); }

    /// Takes over the elements of a store of the same layout.
    void take(store& other) noexcept
    {
        cut(0);
        other.unmap();
        m_pieces.swap(other.m_pieces);
        std::swap(m_size, other.m_size);
    }

    const std::size_t together;
    const std::size_t per_fragment;

private:
    static std::size_t elements_for(const layout& how)
    {
        const std::size_t group = std::max<std::size_t>(how.together, 1);
        bytes_of<T>(group, "buffer");
        const std::size_t most = std::numeric_limits<unsigned int>::max();
        return std::max<std::size_t>(std::min(how.fragment_bytes, most) / sizeof(T) / group, 1) *
               group;
    }

    bool last_is_short() const noexcept
    {
        return !m_pieces.empty() && m_pieces.back().size() < per_fragment;
    }

    /// Pieces of `count` elements in all, to come behind `staying` others. The last is mapped.
    std::vector<piece<T>> make(std::size_t count, std::size_t staying, bool generous,
                               bool with_values, mapped<T>& born)
    {
        std::vector<piece<T>> made;
        made.reserve(count / per_fragment + 1);
        while (count != 0) {
            std::size_t size = std::min(count, per_fragment);
            count -= size;
            if (generous && size < per_fragment)
                size = staying + made.size() != 0 ? per_fragment : first_size(size);
            made.push_back(piece<T>(size, for_overwrite, born));
            if (with_values)
                fill(born);
        }
        return made;
    }

    /// A buffer of less than a fragment grows as a std::vector does.
    std::size_t first_size(std::size_t wanted) const noexcept
    {
        return std::min(per_fragment, std::max({wanted, 2 * capacity(), std::size_t{64}}));
    }

    void copy_used(std::size_t number, piece<T>& to)
    {
        const std::size_t first = number * per_fragment;
        const std::size_t count = m_size > first ? m_size - first : 0;
        const mapped<const T> from = m_pieces[number].map_const();
        std::copy_n(from.data(), count, to.map().data());
    }

    static void fill(std::span<T> elements)
    {
        if constexpr (std::default_initializable<T>)
            std::uninitialized_value_construct_n(elements.data(), elements.size());
    }

    void clear_from(std::size_t first, std::size_t end)
    {
        for (std::size_t next = 0; first < end; first = next) {
            const std::size_t number = first / per_fragment;
            next = std::min((number + 1) * per_fragment, end);
            const mapped<T> there = m_pieces[number].map();
            fill(there.subspan(first - number * per_fragment, next - first));
        }
    }

    void turn_to_end()
    {
        raise_capacity(m_size + 1, true, false);
        const std::size_t number = m_size / per_fragment;
        if (m_tail.empty() || m_tail_first != number * per_fragment) {
            m_tail = m_pieces[number].map();
            m_tail_first = number * per_fragment;
        }
    }

    std::vector<piece<T>> m_pieces;
    std::size_t m_size = 0;
    mapped<T> m_tail; // the fragment that is appended to, while it's mapped for that
    std::size_t m_tail_first = 0;
    std::atomic<int> m_users = 0; // cursors; -1 while somebody is alone
};
} // namespace detail
} // namespace mempager

#endif
