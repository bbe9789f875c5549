#ifndef MEM_BLOCKINDEX_H
#define MEM_BLOCKINDEX_H

#include <compare>
#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

class Block;

/// What decides, but for its free space, which requests a block takes: those of its client with
/// its two keys and of a size in its range, both ends included.
struct Mem_BlockKind {
    const void* client = nullptr;
    unsigned int always_mapped = 0;
    unsigned int group_id = 0;
    unsigned int smallest = 0;
    unsigned int largest = 0;

    auto operator<=>(const Mem_BlockKind&) const = default;
};

/// The blocks of one kind, oldest first, with the size of the largest free chunk of each: a tree of
/// maxima over an array. A block that leaves keeps its place empty until places run out.
class Mem_BlockAges
{
public:
    /// Makes a place for one more block. Throws std::bad_alloc, with nothing changed.
    void Reserve();

    /// Takes a block in; Reserve() comes first. Never allocates, as all that follow.
    void Enter(Block& block);
    void Leave(Block& block);

    /// Takes note of a block's largest free chunk.
    void Update(const Block& block);

    bool IsEmpty() const { return m_living == 0; }

    /// The newest block older than `age` with a free chunk of at least `size` bytes; null if there
    /// is none.
    Block* NewestWith(std::uint32_t size, std::uint64_t age) const;

    /// How many blocks there are.
    std::size_t Count() const { return m_living; }

    /// Null, or the first relation that is broken between the array, the tree and the blocks, all
    /// of which are of that kind.
    const char* Broken(const Mem_BlockKind& kind) const;

private:
    friend struct Mem_TestAccess;

    static constexpr std::size_t kNone = static_cast<std::size_t>(-1);

    std::size_t capacity() const { return m_blocks.size(); }
    void append(Block& block, std::uint64_t most);
    void exchange(std::size_t one, std::size_t other);
    void set_most(std::size_t number, std::uint64_t most);
    const char* broken_place(std::size_t number, const Mem_BlockKind& kind) const;
    const char* broken_tree() const;
    std::size_t last_with(std::uint64_t most) const;
    std::size_t last_before(std::size_t end, std::uint64_t most, std::size_t node,
                            std::size_t first, std::size_t count) const;

    std::vector<Block*> m_blocks;      // by place; null where one has left
    std::vector<std::uint64_t> m_ages; // by place, rising
    std::vector<std::uint64_t> m_most; // node n has the children 2n and 2n + 1; the root is 1
    std::size_t m_end = 0;             // places given out
    std::size_t m_living = 0;
};

/// Finds the newest block of a heap that may take a request, without a walk over all of them.
///
/// Threads: none of its own; see the heaps.
class Mem_BlockIndex
{
public:
    /// Where a block stands in the index. The block keeps it, for the index alone.
    struct Place {
        Mem_BlockAges* ages = nullptr; // null for a block that isn't known
        std::size_t number = 0;
        Mem_BlockKind kind;
    };

    /// Capacity for a block that is about to be of a kind, for as long as this object lives.
    class Entry
    {
    public:
        /// Throws std::bad_alloc, with nothing changed.
        Entry(Mem_BlockIndex& index, const Block& block, const Mem_BlockKind& kind);
        ~Entry();

        /// Takes note that the block is of that kind now, and of its largest free chunk. Never
        /// allocates, as the operations that follow.
        void Settle(Block& block) const;

        Entry(const Entry&) = delete;
        Entry& operator=(const Entry&) = delete;

    private:
        Mem_BlockIndex& m_index;
        const Mem_BlockKind m_kind;
        const bool m_is_new; // to the block
    };

    /// Takes note of the largest free chunk of a block, if it is known.
    static void Update(const Block& block);

    /// Forgets a block, if it is known.
    void Leave(Block& block);

    /// Whether a block is known, to whatever index.
    static bool Knows(const Block& block);

    /// How many blocks are known.
    std::size_t Count() const;

    /// Null, or the first relation that is broken between the index and the blocks in it. Not while
    /// there is an Entry.
    const char* Broken() const;

    /// The newest block older than `age` that takes requests of `size` bytes with the client and
    /// the keys of `keys`, whose range is empty, and that has a free chunk of the size: an
    /// alignment may still be too much for it. Null if there is none.
    Block* NewestFor(const Mem_BlockKind& keys, std::uint32_t size, std::uint64_t age) const;

private:
    friend struct Mem_TestAccess;

    static bool is_of(const Block& block, const Mem_BlockKind& kind);
    void tidy(const Mem_BlockKind& kind);

    std::map<Mem_BlockKind, Mem_BlockAges> m_kinds; // none without blocks
};

#endif
