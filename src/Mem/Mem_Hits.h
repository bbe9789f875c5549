#ifndef MEM_HITS_H
#define MEM_HITS_H

#include "Mem/Mem_BlockTable.h"
#include "Mem/Mem_Holding.h"
#include "Mem/Mem_Settings.h"
#include "Mem/Mem_Stamp.h"

#include <atomic>
#include <cassert>
#include <cstddef>

/// What the threads that hit do to a block, without the pager's mutex: they hold its view and let
/// it go as long as it stays, and note what the cache queue has to be told of it. Mem_Views does
/// all else. docs/hits.md is the protocol.
///
/// Threads: any. Nothing here waits, allocates or throws.
class Mem_Hits
{
public:
    Mem_Hits() = default;
    Mem_Hits(const Mem_Hits&) = delete;
    Mem_Hits& operator=(const Mem_Hits&) = delete;

    /// Counts one more holder of a block that has a view. @return false if it has none.
    bool Hold(RegisteredBlock& block);

    /// Counts one holder less. A view that nobody holds any more is cached, unless the bytes of
    /// all views exceed the limit: @return false then, with nothing changed.
    bool LetGo(RegisteredBlock& block);

    /// Counts one holder less, whatever the limit: the last one's view is cached.
    void LetGoToCache(RegisteredBlock& block);

    /// Counts one holder less unless it is the last. @return whether it did.
    bool LetGoUnlessLast(RegisteredBlock& block);

    /// Takes a view that waits in the cache, or that one client alone holds, away from all hits, so
    /// that it can be ended. @return false, with nothing changed, if the block's word isn't `from`.
    bool Claim(RegisteredBlock& block, Mem_Holding from);

    /// Has a block without a view, that nobody else can change, wait in the cache from now on.
    void EnterCache(RegisteredBlock& block);

    /// The bytes of all views. Changed under the pager's mutex alone.
    unsigned long long TotalMapped() const { return m_mapped.load(std::memory_order_relaxed); }
    void AddMapped(unsigned long long size) { m_mapped.store(TotalMapped() + size, kRelaxed); }
    void SubtractMapped(unsigned long long size) { m_mapped.store(TotalMapped() - size, kRelaxed); }

    /// Takes all notes away, then gives each block that was noted to `tell(block, word)`, with the
    /// word that it has, and may be noted again, from then on. Under the pager's mutex.
    template <class Tell>
    void TakeNotes(Tell tell)
    {
        RegisteredBlock* heads[kLists];
        take_lists(heads);
        for (RegisteredBlock* block : heads)
            while (block != nullptr) {
                RegisteredBlock& noted = *block;
                block = next_of(noted);
                tell(noted, MarkGathered(noted));
            }
    }

    /// Clears a block's note. @return the word that it has then.
    static Mem_Holding MarkGathered(RegisteredBlock& block);

private:
    friend struct Mem_TestAccess;

    static constexpr auto kRelaxed = std::memory_order_relaxed;
    static constexpr std::size_t kLists = 8;

    struct alignas(64) List {
        std::atomic<RegisteredBlock*> first = nullptr;
    };

    static bool step(RegisteredBlock& block, Mem_Holding& word, Mem_Holding next);
    void note(RegisteredBlock& block);
    void take_lists(RegisteredBlock* (&heads)[kLists]);
    static RegisteredBlock* next_of(const RegisteredBlock& block);

    List m_notes[kLists];
    /// Read by hits, and written seldom: in a line of its own.
    alignas(64) std::atomic<unsigned long long> m_mapped = 0;
};

// The steps of a hit, each taken at one place: here, so that a hit is one stretch of code.

/// One step: from `word`, as it was read, to `next`. @return whether it was taken; `word` has been
/// read anew if not.
inline bool Mem_Hits::step(RegisteredBlock& block, Mem_Holding& word, Mem_Holding next)
{
    return block.holding.compare_exchange_weak(word, next, std::memory_order_acq_rel,
                                               std::memory_order_acquire);
}

inline bool Mem_Hits::LetGoUnlessLast(RegisteredBlock& block)
{
    Mem_Holding word = block.Holding();
    while (word.Holders() > 1)
        if (step(block, word, word.LetGo()))
            return true;
    return false;
}

inline void Mem_Hits::LetGoToCache(RegisteredBlock& block)
{
    do {
        Mem_Holding word = block.Holding();
        while (word.IsLastHolders()) {
            block.stamp.store(Mem_NextStamp(), kRelaxed);
            if (!step(block, word, Mem_Holding::Cached()))
                continue;
            if (!word.IsNoted())
                note(block);
            return;
        }
        assert(word.Holders() > 0);
    } while (!LetGoUnlessLast(block)); // another client has come to hold the view
}

inline bool Mem_Hits::Hold(RegisteredBlock& block)
{
    Mem_Holding word = block.Holding();
    while (word.HasView())
        if (const Mem_Holding next = word.Held(); step(block, word, next)) {
            if (next.IsNoted() && !word.IsNoted())
                note(block);
            return true;
        }
    return false;
}

inline bool Mem_Hits::LetGo(RegisteredBlock& block)
{
    if (LetGoUnlessLast(block))
        return true;
    if (TotalMapped() > CacheLimit())
        return false;
    LetGoToCache(block);
    return true;
}

#endif
