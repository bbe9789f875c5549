#ifndef MEM_PIECERECORD_H
#define MEM_PIECERECORD_H

#include "Mem/Mem_Prefetch.h"

#include <atomic>
#include <cassert>
#include <cstdint>

class MEM_MemInfo;
struct Mem_Chunk;
struct RegisteredBlock;

/// How many handles a piece has and how many mappings they hold, in one word. Steps that leave both
/// above 0 need no lock; the others are for who holds the piece's stripe. docs/hits.md is the
/// protocol.
///
/// Threads: any. Nothing here waits, allocates or throws.
class Mem_PieceCounts
{
public:
    /// Who takes a step. Anybody is held off while a guard over several handles has the piece.
    enum class By { Anybody, StripeHolder };

    /// The word as it was at one moment.
    class Word
    {
    public:
        int Mappings() const { return static_cast<int>(m_bits & kMappings); }
        int Handles() const { return static_cast<int>(m_bits / kHandle); }
        bool IsFreeTo(By by) const { return by == By::StripeHolder || (m_bits & kHeldOff) == 0; }

    private:
        friend class Mem_PieceCounts;
        explicit Word(std::uint64_t bits) : m_bits(bits) {}

        std::uint64_t m_bits;
    };

    /// One handle, which holds a mapping if `mapped`.
    explicit Mem_PieceCounts(bool mapped) : m_word(kHandle + (mapped ? 1 : 0)) {}

    Word Now() const { return Word(m_word.load(std::memory_order_acquire)); }

    /// Counts a mapping more where there is one. @return whether it did.
    bool AddMapping(By by)
    {
        Word word = Now();
        while (word.IsFreeTo(by) && word.Mappings() > 0)
            if (step(word, word.m_bits + 1))
                return true;
        return false;
    }

    /// Counts a mapping less where it isn't the last. @return whether it did.
    bool TakeMapping()
    {
        Word word = Now();
        while (word.IsFreeTo(By::Anybody) && word.Mappings() > 1)
            if (step(word, word.m_bits - 1))
                return true;
        return false;
    }

    /// Counts a piece's first mapping. With the stripe held.
    void AddFirstMapping() { m_word.fetch_add(1, std::memory_order_acq_rel); }

    /// Counts a mapping less, be it the last. With the stripe held. @return how many are left.
    int TakeAnyMapping()
    {
        return Word(m_word.fetch_sub(1, std::memory_order_acq_rel) - 1).Mappings();
    }

    /// Counts a handle more, which gets a mapping if `map` and others hold one. @return the
    /// mappings that it got; -1 if nothing has changed.
    int AddHandle(By by, bool map)
    {
        Word word = Now();
        while (word.IsFreeTo(by)) {
            const bool mapped = map && word.Mappings() > 0;
            if (step(word, word.m_bits + kHandle + (mapped ? 1 : 0)))
                return mapped ? 1 : 0;
        }
        return -1;
    }

    /// Counts a handle less, with the mappings that it holds, unless it is the last handle or takes
    /// the last mapping away. @return whether it did: the record may be gone then.
    bool RemoveHandle(int mappings)
    {
        Word word = Now();
        while (word.IsFreeTo(By::Anybody) && word.Handles() > 1 &&
               (mappings == 0 || word.Mappings() > mappings))
            if (step(word, less(word, mappings)))
                return true;
        return false;
    }

    /// The same whatever is left. With the stripe held. @return how many handles are left.
    int RemoveAnyHandle(int mappings)
    {
        Word word = Now();
        while (!step(word, less(word, mappings))) {
        }
        return word.Handles() - 1;
    }

    /// Counts a handle less that holds no mapping, if the word still is `word`, which is read anew
    /// if not. With the stripe held. @return whether it did.
    bool RemoveHandleFrom(Word& word) { return step(word, less(word, 0)); }

    /// Whether steps that need no lock are held off from now on. With the stripe held.
    void HoldOff(bool held_off)
    {
        if (held_off)
            m_word.fetch_or(kHeldOff, std::memory_order_acq_rel);
        else
            m_word.fetch_and(~kHeldOff, std::memory_order_acq_rel);
    }

private:
    static constexpr std::uint64_t kMappings = 0x7fffffff;
    static constexpr std::uint64_t kHeldOff = 0x80000000;
    static constexpr std::uint64_t kHandle = 0x100000000;

    static std::uint64_t less(Word word, int mappings)
    {
        assert(word.Mappings() >= mappings);
        return word.m_bits - kHandle - static_cast<std::uint64_t>(mappings);
    }

    /// From `word`, as it was read, to `next`. @return whether the step was taken; `word` has been
    /// read anew if not.
    bool step(Word& word, std::uint64_t next)
    {
        return m_word.compare_exchange_weak(word.m_bits, next, std::memory_order_acq_rel,
                                            std::memory_order_acquire);
    }

    std::atomic<std::uint64_t> m_word;
};

/// What all handles on one piece share. Made by MEM_PagerInfo::Assign(), deleted by the last
/// handle. The handles' stripe guards what isn't atomic.
struct PagerInfoState {
    PagerInfoState(MEM_MemInfo* piece, bool mapped) : counts(mapped), mem_info(piece) {}

    int map_count() const { return counts.Now().Mappings(); } ///< sum over the handles
    int ref_count() const { return counts.Now().Handles(); }  ///< handles on this record

    /// Fetches what the end of the piece will look at first, side by side.
    void PrefetchForFree() const
    {
        Mem_PrefetchLines<2>(mem_info);
        Mem_Prefetch(chunk);
    }

    Mem_PieceCounts counts;
    MEM_MemInfo* const mem_info; ///< the piece; the heap's if local, else the pager's
    /// The pager's record of the block; null once the piece has been freed, and where a client has
    /// made the handle.
    RegisteredBlock* block = nullptr;
    std::atomic<int> blk_id = -1; ///< the block's id; -1 once the piece has been freed
    /// The heap's record of the piece's bytes, to be fetched by; null where the block is.
    const Mem_Chunk* chunk = nullptr;

    /// Keeps the next record, whose memory may begin right behind, in other cache lines. Aligned
    /// memory would do that too, but takes `malloc` a slower way.
    unsigned char apart[64];
};

#endif
