#ifndef MEM_FIFOQUEUE_H
#define MEM_FIFOQUEUE_H

#include "Mem/Mem_SlotTable.h"

#include <cstddef>
#include <cstdint>
#include <vector>

/// The order in which cached blocks leave the cache: a ring of block ids, oldest first, with an
/// index from id to ring slot. An id stands in the queue at most once.
///
/// A removed entry leaves a hole (-1) in the ring, which Pop() skips. When the writing end has
/// caught up with the reading end, the ring is squeezed, and grown by half where more than two
/// thirds of it are alive. It starts with 1024 slots and never shrinks.
///
/// Ids are not negative. Push() of an id that was reserved allocates nothing, and neither does
/// any other operation but Reserve().
///
/// Threads: none of its own; the pager calls it with its mutex held.
class MEM_FifoQueue
{
public:
    MEM_FifoQueue();
    virtual ~MEM_FifoQueue();

    MEM_FifoQueue(const MEM_FifoQueue&) = delete;
    MEM_FifoQueue& operator=(const MEM_FifoQueue&) = delete;

    /// Sets aside what a Push() of `id` can need. Throws std::bad_alloc and has changed nothing
    /// then. A new-handler that runs meanwhile may call Clear() and whatever reads.
    void Reserve(int id);

    /// Takes back what Reserve() set aside; the id leaves the queue if it stands there.
    void Release(int id);

    /// Puts `id` at the young end. An id that is the youngest already keeps its slot; one that
    /// stands elsewhere leaves its old slot. An id that wasn't reserved is reserved first, which
    /// can throw std::bad_alloc, with nothing changed.
    void Push(int id);

    /// Takes `id` out of the queue. @return whether it stood there.
    bool Remove(int id);

    /// Takes the oldest id out. @return that id, or -1 if the queue is empty.
    int Pop();

    /// The youngest id, or -1 if the queue is empty. Gives up the slots of those that have left
    /// behind it.
    int Youngest();

    /// Whether no id is queued.
    bool IsEmpty() const { return m_live == 0; }

    /// How many ids are queued.
    std::uint32_t Length() const { return m_live; }

    /// Takes all ids out. The ring keeps its capacity, reservations stay.
    void Clear();

    /// Whether `id` is queued.
    bool Contains(int id) const;

    /// Whether each ring slot that isn't a hole agrees with the index. For debugging.
    bool Validate() const;

private:
    friend struct Mem_TestAccess;

    /// A position in the ring that wraps at the ring's capacity.
    struct Cursor {
        std::uint32_t position;
        std::uint32_t modulus;

        void StepForward() { position = position + 1 == modulus ? 0 : position + 1; }
        void StepBack() { position = (position == 0 ? modulus : position) - 1; }
        bool operator==(const Cursor& other) const { return position == other.position; }
    };

    int& slot(std::uint32_t position);
    const int& slot(std::uint32_t position) const;
    [[noreturn]] void refuse(std::uint32_t position) const;
    void reserve_ring(std::size_t ids);
    bool is_youngest(int id) const;
    bool erase_from_index(int id);
    std::uint32_t repacked_capacity() const;
    void Repack();

    Cursor m_write;
    Cursor m_read;
    std::vector<int> m_ring;
    Mem_SlotTable<int, -1> m_index; // ring position by id
    std::uint32_t m_live = 0;       // ids that are queued
    std::uint32_t m_reserved = 0;   // ids that may be
};

#endif
