#ifndef MEM_BLOCKSPACELOGIC_H
#define MEM_BLOCKSPACELOGIC_H

#include "Mem/Mem_MemInfo.h"

#include <boost/intrusive/set.hpp>

#include <cstdint>
#include <deque>
#include <iosfwd>

/// The bookkeeping of one block: which stretches of a region are free and which are allocated.
/// It does arithmetic only and never touches the region.
///
/// Best fit with immediate merging: a request takes the smallest free chunk that can hold it,
/// the oldest among equals; the rest of that chunk stays free behind it; a freed chunk joins its
/// free neighbours at once. All numbers are bytes. All operations are logarithmic in the number
/// of chunks.
///
/// Free() allocates nothing. Allocate() allocates before it changes anything, so std::bad_alloc
/// leaves everything as it was.
///
/// Threads: none of its own; the pager calls it with its mutex held.
class BlockSpaceLogic
{
public:
    /// A region of `size` bytes, all free.
    explicit BlockSpaceLogic(std::uint32_t size);
    virtual ~BlockSpaceLogic();

    BlockSpaceLogic(const BlockSpaceLogic&) = delete;
    BlockSpaceLogic& operator=(const BlockSpaceLogic&) = delete;

    /// Takes `size` bytes at a multiple of `alignment` (any number; 0 means none).
    /// On success `*chunk` holds the requested size and the aligned offset, `*actual_size` the
    /// bytes taken, that is size and alignment gap. The limits aren't looked at.
    /// @return false if nothing fits; only `*actual_size` may have changed then.
    bool Allocate(std::uint32_t size, Mem_MemoryChunk* chunk, std::uint32_t alignment,
                  std::uint32_t* actual_size);

    /// Whether Allocate() would succeed and `size` is above the lower limit and not above the
    /// upper one. Changes nothing but `*actual_size`.
    bool CanAllocate(std::uint32_t size, std::uint32_t alignment, std::uint32_t* actual_size) const;

    /// Gives a chunk back, known by its `m_Offset` alone. @return true.
    /// @throws RWBoundsErr if no chunk was given out at that offset; nothing has changed then.
    bool Free(const Mem_MemoryChunk& chunk);

    /// Whether any byte is allocated.
    bool IsUsed() const { return m_allocated != 0; }

    /// The region's size and the sum of all allocated chunks with their gaps.
    void GetStatus(std::uint32_t* size, std::uint32_t* allocated) const;

    /// Lists the free chunks by rising size and the allocated ones by rising aligned offset.
    void PrintStatus(std::ostream& os) const;

    /// CanAllocate() refuses sizes at or below `lower` and above `upper`. At the start 0, 1 GiB.
    void SetLimits(std::uint32_t lower, std::uint32_t upper);

    std::uint32_t Size() const { return m_size; }

    /// The size of the largest free chunk; 0 if there is none.
    std::uint32_t LargestFreeChunk() const;

private:
    friend struct Mem_TestAccess;

    template <class Tag>
    using Hook = boost::intrusive::set_base_hook<boost::intrusive::tag<Tag>,
                                                 boost::intrusive::optimize_size<true>>;
    using MainHook = Hook<struct MainOrder>;        // in m_free or in m_allocated_chunks
    using NeighbourHook = Hook<struct OffsetOrder>; // free: in m_free_by_offset or in m_empty

    /// One stretch of the region, or a spare record.
    struct Chunk : MainHook, NeighbourHook {
        std::uint32_t offset = 0;         // where the stretch begins
        std::uint32_t actual_size = 0;    // how long it is, an alignment gap included
        std::uint32_t size = 0;           // allocated: what was asked for
        std::uint32_t aligned_offset = 0; // allocated: what was handed out
        std::uint64_t freed = 0;          // free: when it became so, for the order among equals
        Chunk* next_spare = nullptr;

        std::uint32_t End() const { return offset + actual_size; }
    };

    struct SmallerThenOlder {
        bool operator()(const Chunk& a, const Chunk& b) const
        {
            return a.actual_size != b.actual_size ? a.actual_size < b.actual_size
                                                  : a.freed < b.freed;
        }
    };
    struct OffsetOf {
        using type = std::uint32_t;
        type operator()(const Chunk& chunk) const { return chunk.offset; }
    };
    struct AlignedOffsetOf {
        using type = std::uint32_t;
        type operator()(const Chunk& chunk) const { return chunk.aligned_offset; }
    };

    using FreeSet = boost::intrusive::set<Chunk, boost::intrusive::base_hook<MainHook>,
                                          boost::intrusive::compare<SmallerThenOlder>>;
    using OffsetSet = boost::intrusive::set<Chunk, boost::intrusive::base_hook<NeighbourHook>,
                                            boost::intrusive::key_of_value<OffsetOf>>;
    using AllocatedSet =
        boost::intrusive::multiset<Chunk, boost::intrusive::base_hook<MainHook>,
                                   boost::intrusive::key_of_value<AlignedOffsetOf>>;

    /// The free chunk that takes the request, or null. This is best fit but for one thing: if the
    /// smallest chunk of at least `size` is too small for its gap, the smallest of at least `size`
    /// plus `alignment` is taken, and what lies between is passed over.
    const Chunk* find_free_chunk(std::uint32_t size, std::uint32_t alignment,
                                 std::uint32_t* actual_size) const;
    const Chunk* smallest_of_at_least(std::uint64_t size) const;

    Chunk* free_chunk_from(std::uint32_t offset);
    Chunk* free_chunk_up_to(std::uint32_t offset);
    Chunk* empty_chunk_at(std::uint32_t offset);

    OffsetSet& neighbours_of(const Chunk& chunk);
    void enter_free(Chunk& chunk);
    void leave_free(Chunk& chunk);
    Chunk& take_front(Chunk& chunk, std::uint32_t size);
    void absorb(Chunk& chunk, Chunk& neighbour);

    void keep_spare();
    Chunk& take_spare();

    std::uint32_t m_size;
    std::uint32_t m_allocated = 0;
    std::uint32_t m_lower_limit = 0;
    std::uint32_t m_upper_limit = 0x40000000;
    std::uint64_t m_clock = 0;
    std::deque<Chunk> m_pool; // addresses stay as it grows
    Chunk* m_spare = nullptr; // records of the pool that are not in use
    FreeSet m_free;
    // Free chunks again, to find a freed chunk's neighbours. Chunks of size 0 come from requests
    // of 0 bytes alone. They can lie where another chunk begins, ends or runs, and are found ahead
    // of it as a neighbour, as they are ahead of it by size; no two lie at one offset.
    OffsetSet m_free_by_offset;
    OffsetSet m_empty;
    AllocatedSet m_allocated_chunks; // equals in the order in which they were allocated
};

#endif
