#ifndef MEM_BLOCKS_H
#define MEM_BLOCKS_H

#include "Mem/Mem_BlockTable.h"
#include "Rw/RWCString.h"

#include <cstddef>
#include <memory>
#include <unordered_map>

struct Mem_Status;

/// The blocks that a pager knows: their records by id and by name, how many pieces rest on each,
/// and how many bytes all that makes. Nobody else writes a record's `owner` and `ref`.
///
/// Threads: the caller holds the pager's mutex. Only a Next and the constructor allocate.
class Mem_Blocks
{
public:
    Mem_Blocks();
    ~Mem_Blocks();
    Mem_Blocks(const Mem_Blocks&) = delete;
    Mem_Blocks& operator=(const Mem_Blocks&) = delete;

    /// What a new block called `name` needs here, set aside before anything else happens; taken
    /// back unless it is used. The next block will want the same id again.
    class Next
    {
    public:
        /// `name` is not known yet. Throws std::bad_alloc, with nothing changed.
        Next(Mem_Blocks& blocks, const RWCString& name);
        ~Next();
        Next(const Next&) = delete;
        Next& operator=(const Next&) = delete;

        int Id() const { return m_id; }

        /// Makes the record a block, with a first piece of `piece_size` bytes. @return its id.
        int Use(std::unique_ptr<RegisteredBlock> block, unsigned int piece_size);

    private:
        Mem_Blocks& m_blocks;
        const RWCString m_name;
        const int m_id;
        bool m_used = false;
    };

    /// The record of a living block. @throws RWBoundsErr for any other id.
    RegisteredBlock& At(int id) const { return m_blocks.At(id); }

    /// The block of an owner that this process has made, or of a name. @return -1 if there is none.
    int IdOf(const BaseMapInfo& owner) const;
    int IdOf(const RWCString& name) const;

    /// Counts one more piece, of `size` bytes, on a block.
    void AddPiece(RegisteredBlock& block, unsigned int size);

    /// Counts one piece, of `size` bytes, less. @return whether it was the block's last.
    bool RemovePiece(RegisteredBlock& block, unsigned int size);

    /// Forgets a block without pieces, and deletes its record. `name` is its owner's.
    void Forget(int id, const RWCString& name);

    /// All records, for walks.
    const Mem_BlockTable& Table() const { return m_blocks; }

    /// Fills in what of a pager's status is known here.
    void Tell(Mem_Status& status) const;

    /// Compares table, name index, count and sums with each other. @return the first relation that
    /// doesn't hold; null if all do.
    const char* Broken() const;

private:
    friend struct Mem_TestAccess;

    struct NameHash {
        std::size_t operator()(const RWCString& name) const { return name.hash(); }
    };

    unsigned long long& blocks_size_of(const RegisteredBlock& block);
    unsigned long long& pieces_size_of(const RegisteredBlock& block);

    Mem_BlockTable m_blocks;
    std::unordered_map<RWCString, int, NameHash> m_block_ids;
    unsigned long long m_local_blocks_size = 0; ///< bytes, as the next three
    unsigned long long m_local_pieces_size = 0;
    unsigned long long m_foreign_blocks_size = 0;
    unsigned long long m_foreign_pieces_size = 0;
    int m_blocks_count = 0;
};

#endif
