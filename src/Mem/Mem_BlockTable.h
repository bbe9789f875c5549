#ifndef MEM_BLOCKTABLE_H
#define MEM_BLOCKTABLE_H

#include "Mem/Mem_SlotTable.h"

class BaseMapInfo;

/// The pager's record of one block: a mappable region with its owner. Made, changed and deleted
/// by the pager alone, under its mutex.
struct RegisteredBlock {
    /// The three states of a block.
    static constexpr int kMapped = 0;   ///< a view exists and clients hold it
    static constexpr int kUnmapped = 1; ///< no view
    static constexpr int kCached = 2;   ///< a view exists and waits in the cache queue

    explicit RegisteredBlock(BaseMapInfo* the_owner) : owner(the_owner) {}

    BaseMapInfo* owner;   ///< not owned
    int ref = 0;          ///< pieces registered on this block
    int m_ref = 0;        ///< pieces that hold this block mapped
    int stat = kUnmapped; ///< one of the three states
    unsigned views = 0;   ///< that it has had, the present one included
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
