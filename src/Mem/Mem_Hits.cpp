#include "Mem/Mem_Hits.h"

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
