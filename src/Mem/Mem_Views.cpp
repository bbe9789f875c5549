#include "Mem/Mem_Views.h"

#include "Mem/Mem_FirstBreak.h"
#include "Mem/Mem_MemInfo.h"
#include "Mem/Mem_Settings.h"
#include "NRVlog/Zor_Log.h"
#include "Platform/Inspection.h"
#include "Platform/LastError.h"
#include "Platform/Mappings.h"

#include <algorithm>
#include <cassert>
#include <functional>
#include <new>
#include <utility>

bool Mem_Views::HasView(const RegisteredBlock& block)
{
    return block.owner->Ptr() != nullptr;
}

Mem_ViewAddresses::Mem_ViewAddresses(const Mem_BlockTable& blocks)
{
    try {
        blocks.ForEach([this](int, const RegisteredBlock& block) {
            if (const void* const view = block.owner->Ptr())
                m_sorted.push_back(view);
        });
    } catch (const std::bad_alloc&) {
        m_sorted.clear();
    }
    std::sort(m_sorted.begin(), m_sorted.end(), std::less<>());
}

bool Mem_ViewAddresses::Has(const void* view) const
{
    return std::binary_search(m_sorted.begin(), m_sorted.end(), view, std::less<>());
}

unsigned long long Mem_ViewAddresses::HugeBytes() const
{
    return Platform::Mappings::Get().HugeBytes(*this);
}

int Mem_Views::Open(RegisteredBlock& block)
{
    assert(!block.Holding().HasView());
    const int failure = block.owner->Map();
    if (failure != 0)
        return failure;
    m_hits.AddMapped(block.owner->Size());
    ++block.views;
    return 0;
}

void Mem_Views::Hold(RegisteredBlock& block)
{
    assert(HasView(block));
    if (!m_hits.Hold(block)) // nobody else knows the view yet
        block.holding.store(block.Holding().Held(), std::memory_order_release);
}

void Mem_Views::EnterCache(RegisteredBlock& block)
{
    assert(HasView(block));
    m_hits.EnterCache(block);
}

void Mem_Views::Drop(RegisteredBlock& block)
{
    while (!m_hits.LetGoUnlessLast(block)) {
        const Mem_Holding word = block.Holding();
        assert(word.Holders() > 0);
        if (word.IsLastHolders() && m_hits.Claim(block, word)) {
            end_view(block);
            return;
        }
    }
}

bool Mem_Views::EvictAtLeast(unsigned int needed, Mem_Counter to_shared)
{
    Gather();
    for (unsigned long long freed = 0; freed < needed;) {
        to_shared.Mark();
        RegisteredBlock* const victim = claim_oldest();
        if (victim == nullptr)
            return false;
        freed += end_view(*victim);
        to_shared.Close();
    }
    return true;
}

/// @return null if no view waits. A block that has been hit since its place was gathered is passed
/// over: its note will bring it back.
RegisteredBlock* Mem_Views::claim_oldest()
{
    for (;;) {
        if (m_cache_queue.IsEmpty())
            Gather();
        if (m_cache_queue.IsEmpty())
            return nullptr;
        RegisteredBlock& oldest = m_blocks.At(m_cache_queue.Pop());
        m_total_cached -= oldest.owner->Size();
        if (m_hits.Claim(oldest, Mem_Holding(Mem_Holding::kCached, 0, false)))
            return &oldest;
    }
}

void Mem_Views::ClearCache(Mem_Counter to_shared)
{
    m_blocks.ForEach([this, to_shared](int, RegisteredBlock& block) {
        const Mem_Holding word = block.Holding();
        if (!word.IsCached() || !m_hits.Claim(block, word))
            return;
        end_view(block);
        to_shared.Close();
    });
    m_cache_queue.Clear(); // what isn't gone was hit meanwhile, and is noted
    m_total_cached = 0;
}

void Mem_Views::Gather()
{
    Gathered cached;
    m_hits.TakeNotes(
        [&](RegisteredBlock& block, Mem_Holding word) { take_up(block, word, cached); });
    enter_queue(cached);
}

void Mem_Views::GatherAll()
{
    Gather();
    Gathered cached;
    m_blocks.ForEach([&](int, RegisteredBlock& block) {
        if (block.Holding().IsNoted())
            take_up(block, Mem_Hits::MarkGathered(block), cached);
    });
    enter_queue(cached);
}

/// Takes a block whose note was cleared out of its old place in the queue. `word` is what it had
/// then; if it waits in the cache, it joins `cached`.
void Mem_Views::take_up(RegisteredBlock& block, Mem_Holding word, Gathered& cached)
{
    leave_queue(block);
    if (!word.IsCached())
        return;
    block.gathered_stamp = block.stamp.load(std::memory_order_relaxed);
    cached.push_front(block);
}

/// In the order of the stamps. One that was let go while others were gathered can be older than
/// some of those, which leave the queue's young end for it and come back behind it.
void Mem_Views::enter_queue(Gathered& cached)
{
    const auto is_older = [](const RegisteredBlock& a, const RegisteredBlock& b) {
        return a.gathered_stamp < b.gathered_stamp;
    };
    cached.sort(is_older);
    if (cached.empty())
        return;
    Gathered younger;
    for (int id = m_cache_queue.Youngest(); id >= 0; id = m_cache_queue.Youngest()) {
        RegisteredBlock& youngest = m_blocks.At(id);
        if (!is_older(cached.front(), youngest))
            break;
        leave_queue(youngest);
        younger.push_front(youngest);
    }
    cached.merge(younger, is_older);
    while (!cached.empty()) {
        const RegisteredBlock& next = cached.front();
        cached.pop_front();
        enter_queue(next);
    }
}

/// At its young end.
void Mem_Views::enter_queue(const RegisteredBlock& block)
{
    if (!m_cache_queue.Contains(block.id))
        m_total_cached += block.owner->Size();
    m_cache_queue.Push(block.id);
}

void Mem_Views::leave_queue(const RegisteredBlock& block)
{
    if (m_cache_queue.Remove(block.id))
        m_total_cached -= block.owner->Size();
}

unsigned long long Mem_Views::TotalCached()
{
    Gather();
    return m_total_cached;
}

unsigned long long Mem_Views::HeldByClients()
{
    const unsigned long long cached = TotalCached();
    return TotalMapped() - cached;
}

/// @return the bytes that the mapped total fell by: none where the owner had no view to end.
unsigned int Mem_Views::end_view(RegisteredBlock& block)
{
    const unsigned int unmapped = block.owner->Unmap() == 0 ? block.owner->Size() : 0;
    m_hits.SubtractMapped(unmapped);
    trim_if_due(unmapped);
    return unmapped;
}

void Mem_Views::trim_if_due(unsigned int unmapped)
{
    const unsigned long long limit = SettingOrNone(&MEM_MemoryConfiguration::UnmapWorkingSetLimit);
    m_unmapped_since_trim += unmapped;
    if (limit == 0 || m_unmapped_since_trim <= limit)
        return;
    m_unmapped_since_trim = 0;
    Trim();
}

void Mem_Views::Forget(RegisteredBlock& block)
{
    const Mem_Holding word = block.Holding();
    if (word.IsNoted())
        Gather(); // no list may name a record that is gone
    if (word.HasView())
        m_hits.SubtractMapped(block.owner->Size());
    leave_queue(block);
    m_cache_queue.Release(block.id);
}

/// Walks the views, of which another process may see the memory, but never private memory.
class Mem_Views::Walk final : public Platform::Mappings::Views
{
public:
    explicit Walk(const Mem_BlockTable& blocks) : m_blocks(blocks) {}

    bool Next(void*& view, std::uint64_t& size) override
    {
        for (int id = m_blocks.NextFrom(m_next); id >= 0; id = m_blocks.NextFrom(id + 1)) {
            const RegisteredBlock& block = m_blocks.At(id);
            if (!HasView(block))
                continue;
            view = block.owner->Ptr();
            size = block.owner->Size();
            m_next = id + 1;
            return true;
        }
        return false;
    }

private:
    const Mem_BlockTable& m_blocks;
    int m_next = 0;
};

namespace
{
/// A walk over one stretch of a view.
class Stretch final : public Platform::Mappings::Views
{
public:
    Stretch(void* begin, std::uint64_t size) : m_begin(begin), m_size(size) {}

    bool Next(void*& view, std::uint64_t& size) override
    {
        view = m_begin;
        size = std::exchange(m_size, 0);
        return size != 0;
    }

private:
    void* const m_begin;
    std::uint64_t m_size;
};
} // namespace

int Mem_Views::trim(Platform::Mappings::Views& views)
{
    if (Platform::Mappings::Get().TrimWorkingSet(views))
        return 0;
    ZOR_LOG("MEM_MemPager::ReduceWorkingSet", 3, "failed to reduce working set (error=%d)!!\n",
            static_cast<int>(Platform::LastError()));
    return -1;
}

void Mem_Views::Trim()
{
    ZOR_LOG("MEM_MemPager::ReduceWorkingSet", 6, "MEM_MemPager::ReduceWorkingSet()\n");
    Walk views(m_blocks);
    trim(views);
}

int Mem_Views::Trim(const RegisteredBlock& block, MEM_MemInfo& piece)
{
    if (!HasView(block))
        return 0;
    Stretch stretch(static_cast<char*>(block.owner->Ptr()) + piece.Offset(), piece.Size());
    return trim(stretch);
}

bool Mem_Views::AddResident(unsigned long long& bytes) const
{
    Walk views(m_blocks);
    std::uint64_t resident = 0;
    if (!Platform::Inspection::Get().ResidentBytes(views, resident))
        return false;
    bytes += resident;
    return true;
}

const char* Mem_Views::Broken() const
{
    Mem_FirstBreak check;
    unsigned long long mapped_bytes = 0;
    unsigned long long queued_bytes = 0;
    std::uint32_t queued_blocks = 0;
    m_blocks.ForEach([&](int id, const RegisteredBlock& block) {
        const unsigned int size = block.owner->Size();
        const Mem_Holding word = block.Holding();
        const bool queued = m_cache_queue.Contains(id);
        mapped_bytes += HasView(block) ? size : 0;
        queued_bytes += queued ? size : 0;
        queued_blocks += queued ? 1 : 0;
        check.Expect((word.Stat() == Mem_Holding::kMapped) == (word.Holders() > 0),
                     "m_ref against stat");
        check.Expect(HasView(block) == word.HasView(), "a view against stat");
        check.Expect(queued == word.IsCached() || word.IsNoted(), "the queue against stat");
    });
    check.Expect(m_cache_queue.Validate(), "the queue's index");
    check.Expect(m_cache_queue.Length() == queued_blocks, "an id too many in the queue");
    check.Expect(mapped_bytes == TotalMapped(), "m_total_mapped");
    check.Expect(queued_bytes == m_total_cached, "m_total_cached");
    return check.What();
}
