#ifndef MEM_SLOTTABLE_H
#define MEM_SLOTTABLE_H

#include <cstddef>
#include <memory>
#include <utility>
#include <vector>

/// Values by small integer ids that are given out in rising order and die in any order.
///
/// Slots stand in segments of 1024. A segment exists from the first Reserve() of one of its ids
/// until the last Release(); between segments that exist there can be any number that don't, so
/// a table that has given out millions of ids costs little more than its living ones. An id that
/// isn't reserved reads as `Empty`.
///
/// Not exported: part of the classes that hold one. No lock of its own.
template <class T, T Empty>
class Mem_SlotTable
{
public:
    /// Gives `id` (not negative) a slot that holds Empty; an id that has its slot already stays as
    /// it is. Allocates at most the segment and the directory's growth, and only then changes
    /// anything. A new-handler that runs meanwhile may read the table and change its values.
    void Reserve(int id)
    {
        auto fresh = find_segment(id) == nullptr ? std::make_unique<Segment>() : nullptr;
        grow(segment_of(id) + 1);
        if (fresh)
            m_segments[segment_of(id)] = std::move(fresh);
        Segment& segment = *m_segments[segment_of(id)];
        bool& reserved = segment.reserved[place_of(id)];
        segment.living += reserved ? 0 : 1;
        reserved = true;
    }

    /// Takes the slot of `id` away, and its segment with the last slot of it. Never allocates.
    void Release(int id)
    {
        Segment* segment = find_segment(id);
        if (segment == nullptr || !segment->reserved[place_of(id)])
            return;
        segment->reserved[place_of(id)] = false;
        segment->slots[place_of(id)] = Empty;
        if (--segment->living == 0)
            m_segments[segment_of(id)].reset();
    }

    /// The value of `id`; Empty for an id without a slot, negative ones included.
    T Get(int id) const
    {
        const Segment* segment = find_segment(id);
        return segment == nullptr ? Empty : segment->slots[place_of(id)];
    }

    /// Stores a value in a slot that is reserved.
    void Set(int id, T value) { m_segments[segment_of(id)]->slots[place_of(id)] = value; }

    bool IsReserved(int id) const
    {
        const Segment* segment = find_segment(id);
        return segment != nullptr && segment->reserved[place_of(id)];
    }

    /// The first id from `id` on whose value isn't Empty; -1 if there is none.
    int NextFrom(int id) const
    {
        std::size_t place = place_of(id);
        for (std::size_t number = segment_of(id); number < m_segments.size(); ++number, place = 0)
            for (; m_segments[number] && place < kSegment; ++place)
                if (m_segments[number]->slots[place] != Empty)
                    return static_cast<int>(number * kSegment + place);
        return -1;
    }

    /// Calls visit(id, value) for each value that isn't Empty, in rising order of ids. `visit`
    /// may change the table's values, but not reserve or release.
    template <class Visit>
    void ForEach(Visit visit) const
    {
        for (int id = NextFrom(0); id >= 0; id = NextFrom(id + 1))
            visit(id, Get(id));
    }

    /// Takes all slots away. The directory keeps its capacity.
    void Clear() { m_segments.clear(); }

private:
    friend struct Mem_TestAccess;

    static constexpr std::size_t kSegment = 1024;

    struct Segment {
        Segment()
        {
            for (T& slot : slots)
                slot = Empty;
        }
        std::size_t living = 0;
        T slots[kSegment];
        bool reserved[kSegment] = {};
    };

    static std::size_t segment_of(int id) { return static_cast<std::size_t>(id) / kSegment; }
    static std::size_t place_of(int id) { return static_cast<std::size_t>(id) % kSegment; }

    Segment* find_segment(int id) const
    {
        // A negative id becomes a number far past the end.
        const std::size_t number = segment_of(id);
        return number < m_segments.size() ? m_segments[number].get() : nullptr;
    }

    void grow(std::size_t size)
    {
        if (size > m_segments.capacity())
            move_directory(size + size / 2);
        if (size > m_segments.size())
            m_segments.resize(size);
    }

    /// The larger directory is whole before the old one is touched, see Reserve().
    void move_directory(std::size_t capacity)
    {
        std::vector<std::unique_ptr<Segment>> larger;
        larger.reserve(capacity);
        for (std::unique_ptr<Segment>& segment : m_segments)
            larger.push_back(std::move(segment));
        m_segments.swap(larger);
    }

    std::vector<std::unique_ptr<Segment>> m_segments;
};

#endif
