#ifndef MEM_BLOCKSPACELOGIC_H
#define MEM_BLOCKSPACELOGIC_H

#include "Mem/Mem_FreeChunks.h"
#include "Mem/Mem_MemInfo.h"
#include "Mem/Mem_Prefetch.h"

#include <boost/intrusive/set.hpp>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <iosfwd>

/// The bookkeeping of one block: which stretches of a region are free and which are allocated.
/// It does arithmetic only and never touches the region.
///
/// Best fit with immediate merging: a request takes the smallest free chunk that can hold it,
/// the oldest among equals; the rest of that chunk stays free behind it; a freed chunk joins its
/// free neighbours at once. All numbers are bytes. Taking and giving back is logarithmic in the
/// number of free chunks at most, but for a walk over what requests of 0 bytes have left, and for
/// one over all chunks where a request is of 0 bytes or a chunk comes back without its record.
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
    /// On success `*chunk` holds the requested size, the aligned offset and the record,
    /// `*actual_size` the bytes taken, that is size and alignment gap. The limits aren't looked at.
    /// @return false if nothing fits; only `*actual_size` may have changed then.
    bool Allocate(std::uint32_t size, Mem_MemoryChunk* chunk, std::uint32_t alignment,
                  std::uint32_t* actual_size);

    /// Whether Allocate() would succeed and `size` is above the lower limit and not above the
    /// upper one. Changes nothing but `*actual_size`.
    bool CanAllocate(std::uint32_t size, std::uint32_t alignment, std::uint32_t* actual_size) const;

    /// Gives a chunk back, known by its `m_Offset` alone; its record, if it has one, saves the
    /// search. @return true.
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
    std::uint32_t LargestFreeChunk() const { return m_free.Largest(); }

    /// Fetches what Free() of a chunk will look at first.
    static void PrefetchForFree(const Mem_MemoryChunk& chunk)
    {
        if (chunk.m_record != nullptr)
            prefetch_neighbours(*chunk.m_record);
    }

    /// Compares the stretches with their indexes, sums and records: null, or the first relation
    /// that doesn't hold. Takes a walk over all of them.
    const char* Broken() const;

private:
    friend struct Mem_TestAccess;

    using Chunk = Mem_Chunk;

    struct LowerThenOlder {
        bool operator()(const Chunk& a, const Chunk& b) const
        {
            return a.AlignedOffset() != b.AlignedOffset() ? a.AlignedOffset() < b.AlignedOffset()
                                                          : a.order < b.order;
        }
    };

    using NothingSet = boost::intrusive::set<Chunk, boost::intrusive::compare<LowerThenOlder>>;

    /// The free chunk that takes the request, or null. This is best fit but for one thing: if the
    /// smallest chunk of at least `size` is too small for its gap, the smallest of at least `size`
    /// plus `alignment` is taken, and what lies between is passed over.
    const Chunk* find_free_chunk(std::uint32_t size, std::uint32_t alignment,
                                 std::uint32_t* actual_size) const;
    const Chunk* search(std::uint32_t size, std::uint32_t alignment,
                        std::uint32_t* actual_size) const;

    Chunk* free_chunk_behind(const Chunk& chunk);
    Chunk* free_chunk_before(const Chunk& chunk);
    template <class Borders>
    Chunk* first_free(Borders borders);
    template <class Borders>
    Chunk* empty_free(Borders borders);

    static void prefetch_neighbours(const Chunk& chunk);
    void prefetch_bins_around(const Chunk& chunk) const;
    void enter_free(Chunk& chunk);
    void leave_free(Chunk& chunk);
    void enter_allocated(Chunk& chunk);
    Chunk* leave_allocated(const Mem_MemoryChunk& given);
    Chunk* find_nothing(std::uint32_t aligned_offset);
    Chunk* find_bytes(std::uint32_t aligned_offset);
    template <class Visit>
    void for_each_allocated(Visit visit) const;
    Chunk& take_front(Chunk& chunk, std::uint32_t size);
    void absorb(Chunk& chunk, Chunk& neighbour);

    static void link(Chunk* before, Chunk* behind);
    void insert_before(Chunk& chunk, Chunk& behind);
    void replace(Chunk& old, Chunk& chunk);
    void unlink(Chunk& chunk);

    void keep_spare();
    Chunk& take_spare();
    void give_spare(Chunk& chunk);

    struct Tally;
    const char* broken_stretches(Tally& tally) const;
    const char* broken_free_chunks(Tally& tally) const;
    const char* broken_requests_for_nothing(Tally& tally) const;
    std::size_t count_spare() const;

    std::uint32_t m_size;
    std::uint32_t m_allocated = 0;
    std::uint32_t m_lower_limit = 0;
    std::uint32_t m_upper_limit = 0x40000000;
    std::uint64_t m_clock = 0;
    std::deque<Chunk> m_pool; // addresses stay as it grows
    Chunk* m_spare = nullptr; // records of the pool that are not in use
    Mem_FreeChunks m_free;

    /// The answer to the latest question, since each is asked twice; none once m_free has changed.
    struct Found {
        const Chunk* chunk = nullptr;
        std::uint32_t size = 0;
        std::uint32_t alignment = 0;
        std::uint32_t actual_size = 0;
    };
    mutable Found m_found;

    /// All stretches in the order of their offsets, but for empty ones: those come from requests of
    /// 0 bytes alone, and can lie where another begins, ends or runs.
    Chunk* m_first = nullptr;

    std::size_t m_allocated_count = 0; // chunks of requests of some bytes

    /// The chunks of requests of 0 bytes, which can share their offset with others.
    NothingSet m_nothing;
};

#endif
