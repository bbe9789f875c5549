#include "Mem/Mem_Hits.h"

#include "Mem/Mem_BlockTable.h"
#include "Mem/Mem_Settings.h"
#include "Mem/Mem_Stamp.h"

#include <cassert>
#include <utility>

namespace
{
/// One step: from `word`, as it was read, to `next`. @return whether it was taken; `word` has been
/// read anew if not.
bool step(RegisteredBlock& block, Mem_Holding& word, Mem_Holding next)
{
    return block.holding.compare_exchange_weak(word, next, std::memory_order_acq_rel,
                                               std::memory_order_acquire);
}
} // namespace

bool Mem_Hits::Hold(RegisteredBlock& block)
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

bool Mem_Hits::LetGo(RegisteredBlock& block)
{
    if (LetGoUnlessLast(block))
        return true;
    if (TotalMapped() > CacheLimit())
        return false;
    LetGoToCache(block);
    return true;
}

bool Mem_Hits::LetGoUnlessLast(RegisteredBlock& block)
{
    Mem_Holding word = block.Holding();
    while (word.Holders() > 1)
        if (step(block, word, word.LetGo()))
            return true;
    return false;
}

void Mem_Hits::LetGoToCache(RegisteredBlock& block)
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

bool Mem_Hits::Claim(RegisteredBlock& block, Mem_Holding from)
{
    return block.holding.compare_exchange_strong(from, from.Unmapped(), std::memory_order_acq_rel,
                                                 kRelaxed);
}

void Mem_Hits::EnterCache(RegisteredBlock& block)
{
    const Mem_Holding word = block.Holding();
    assert(!word.HasView());
    block.stamp.store(Mem_NextStamp(), kRelaxed);
    block.holding.store(Mem_Holding::Cached(), std::memory_order_release);
    if (!word.IsNoted())
        note(block);
}

void Mem_Hits::note(RegisteredBlock& block)
{
    std::atomic<RegisteredBlock*>& first =
        m_notes[static_cast<std::size_t>(block.id) % kLists].first;
    block.next_noted = first.load(kRelaxed);
    while (!first.compare_exchange_weak(block.next_noted, &block, std::memory_order_release,
                                        kRelaxed)) {
    }
}

void Mem_Hits::take_lists(RegisteredBlock* (&heads)[kLists])
{
    for (std::size_t i = 0; i < kLists; ++i) {
        std::atomic<RegisteredBlock*>& first = m_notes[i].first;
        heads[i] = first.load(kRelaxed) == nullptr
                       ? nullptr
                       : first.exchange(nullptr, std::memory_order_acquire);
    }
}

RegisteredBlock* Mem_Hits::next_of(const RegisteredBlock& block)
{
    return block.next_noted;
}

Mem_Holding Mem_Hits::MarkGathered(RegisteredBlock& block)
{
    Mem_Holding word = block.Holding();
    while (!step(block, word, word.Gathered())) {
    }
    return word.Gathered();
}
