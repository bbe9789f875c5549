#ifndef MEM_BLOCKTABLE_H
#define MEM_BLOCKTABLE_H

#include "Mem/Mem_Holding.h"
#include "Mem/Mem_SlotTable.h"

#include <boost/intrusive/slist.hpp>

#include <atomic>
#include <cstdint>

class BaseMapInfo;

/// The pager's record of one block: a mappable region with its owner. Made and deleted by the pager
/// alone, under its mutex, which guards what isn't said to be atomic. Hits change the atomic
/// members without it (docs/hits.md), so each record has a cache line of its own.
struct alignas(64) RegisteredBlock {
    explicit RegisteredBlock(BaseMapInfo* the_owner) : owner(the_owner) {}

    /// One of the three states of Mem_Holding.
    int stat() const { return Holding().Stat(); }
    /// The pieces that hold this block mapped.
    int m_ref() const { return Holding().Holders(); }
    Mem_Holding Holding() const { return holding.load(std::memory_order_acquire); }

    BaseMapInfo* const owner; ///< not owned
    int id = -1;              ///< in the block table
    int ref = 0;              ///< pieces registered on this block
    unsigned views = 0;       ///< that it has had, the present one included
    std::atomic<Mem_Holding> holding = Mem_Holding();
    std::atomic<std::uint64_t> stamp = 0;  ///< when it was let go last
    RegisteredBlock* next_noted = nullptr; ///< of whoever has noted the block

    // What is made of a note while it is brought to the queue.
    boost::intrusive::slist_member_hook<> gathered;
    std::uint64_t gathered_stamp = 0;
};

/// The block table: records by block id. Ids rise by one with each block and aren't given again
/// until Clear(). Doesn't own the records.
class Mem_BlockTable
{
public:
    /// The id that the next block gets, and one above the greatest that was given.
    int Length() const { return m_length; }

    /// Makes sure that the next Append() allocates nothing. Throws std::bad_alloc, or
    /// std::length_error once 2^31 - 1 ids are out; nothing has changed then.
    void ReserveNext();

    /// Gives `block` the id Length(). ReserveNext() comes first.
    void Append(RegisteredBlock* block);

    /// The record of a living block.
    /// @throws RWBoundsErr for an id past the end, negative ones included, or of a block gone.
    RegisteredBlock& At(int id) const
    {
        RegisteredBlock* const block = Find(id);
        if (block == nullptr)
            refuse(id);
        return *block;
    }

    /// The record of an id below Length(); null if its block is gone.
    RegisteredBlock* Find(int id) const { return m_slots.Get(id); }

    /// The least id of a living block from `id` on; -1 if there is none.
    int NextFrom(int id) const { return m_slots.NextFrom(id); }

    /// Forgets a block; its id stays used.
    void Erase(int id) { m_slots.Release(id); }

    /// Empties the table; ids start at 0 again.
    void Clear();

    /// Calls visit(id, record) for each living block, in the order of ids.
    template <class Visit>
    void ForEach(Visit visit) const
    {
        m_slots.ForEach([&](int id, RegisteredBlock* block) { visit(id, *block); });
    }

private:
    friend struct Mem_TestAccess;

    [[noreturn]] void refuse(int id) const;

    Mem_SlotTable<RegisteredBlock*, nullptr> m_slots;
    int m_length = 0;
};

#endif
