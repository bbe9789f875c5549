#include "Mem/Mem_Views.h"

#include "Mem/Mem_FirstBreak.h"
#include "Mem/Mem_MemInfo.h"
#include "Mem/Mem_Settings.h"
#include "NRVlog/Zor_Log.h"
#include "Platform/LastError.h"
#include "Platform/Mappings.h"

#include <cassert>

namespace
{
[[maybe_unused]] bool is_held(const RegisteredBlock& block)
{
    return block.stat == RegisteredBlock::kMapped && block.m_ref > 0;
}

[[maybe_unused]] bool is_let_go(const RegisteredBlock& block)
{
    return block.stat == RegisteredBlock::kMapped && block.m_ref == 0;
}

[[maybe_unused]] bool is_open(const RegisteredBlock& block)
{
    return block.stat == RegisteredBlock::kUnmapped && Mem_Views::HasView(block);
}
} // namespace

bool Mem_Views::HasView(const RegisteredBlock& block)
{
    return block.owner->Ptr() != nullptr;
}

int Mem_Views::Open(RegisteredBlock& block)
{
    assert(block.stat == RegisteredBlock::kUnmapped);
    const int failure = block.owner->Map();
    if (failure != 0)
        return failure;
    m_total_mapped += block.owner->Size();
    ++block.views;
    return 0;
}

void Mem_Views::Hold(int id, RegisteredBlock& block)
{
    assert(HasView(block));
    if (block.stat == RegisteredBlock::kCached) {
        m_cache_queue.Remove(id);
        m_total_cached -= block.owner->Size();
    }
    block.stat = RegisteredBlock::kMapped;
    ++block.m_ref;
}

bool Mem_Views::LetGo(RegisteredBlock& block)
{
    assert(is_held(block));
    return --block.m_ref == 0;
}

void Mem_Views::EnterCache(int id, RegisteredBlock& block)
{
    assert(is_open(block) || is_let_go(block));
    m_cache_queue.Push(id);
    m_total_cached += block.owner->Size();
    block.stat = RegisteredBlock::kCached;
}

void Mem_Views::Drop(RegisteredBlock& block)
{
    assert(is_let_go(block));
    end_view(block);
}

bool Mem_Views::EvictAtLeast(unsigned int needed, Mem_Counter to_shared)
{
    for (unsigned long long freed = 0; freed < needed;) {
        to_shared.Mark();
        if (m_cache_queue.IsEmpty())
            return false;
        RegisteredBlock& victim = m_blocks.At(m_cache_queue.Pop());
        assert(victim.stat == RegisteredBlock::kCached);
        m_total_cached -= victim.owner->Size();
        freed += end_view(victim);
        to_shared.Close();
    }
    return true;
}

void Mem_Views::ClearCache(Mem_Counter to_shared)
{
    m_blocks.ForEach([this, to_shared](int, RegisteredBlock& block) {
        if (block.stat != RegisteredBlock::kCached)
            return;
        end_view(block);
        to_shared.Close();
    });
    m_cache_queue.Clear();
    m_total_cached = 0;
}

/// @return the bytes that the mapped total fell by: none where the owner had no view to end.
unsigned int Mem_Views::end_view(RegisteredBlock& block)
{
    const unsigned int unmapped = block.owner->Unmap() == 0 ? block.owner->Size() : 0;
    block.stat = RegisteredBlock::kUnmapped;
    m_total_mapped -= unmapped;
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

void Mem_Views::Forget(int id, RegisteredBlock& block)
{
    const unsigned int size = block.owner->Size();
    if (block.stat != RegisteredBlock::kUnmapped)
        m_total_mapped -= size;
    if (block.stat == RegisteredBlock::kCached)
        m_total_cached -= size;
    m_cache_queue.Release(id);
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

void Mem_Views::Trim()
{
    ZOR_LOG("MEM_MemPager::ReduceWorkingSet", 6, "MEM_MemPager::ReduceWorkingSet()\n");
    Walk views(m_blocks);
    if (!Platform::Mappings::Get().TrimWorkingSet(views))
        ZOR_LOG("MEM_MemPager::ReduceWorkingSet", 3, "failed to reduce working set (error=%d)!!\n",
                static_cast<int>(Platform::LastError()));
}

/// Tells this pager's views from others.
class Mem_Views::All final : public Platform::Mappings::ViewSet
{
public:
    explicit All(const Mem_BlockTable& blocks) : m_blocks(blocks) {}

    bool Has(const void* view) const override
    {
        bool found = false;
        m_blocks.ForEach([view, &found](int, const RegisteredBlock& block) {
            found = found || block.owner->Ptr() == view;
        });
        return found;
    }

private:
    const Mem_BlockTable& m_blocks;
};

unsigned long long Mem_Views::HugeBytes() const
{
    return Platform::Mappings::Get().HugeBytes(All(m_blocks));
}

const char* Mem_Views::Broken() const
{
    Mem_FirstBreak check;
    unsigned long long mapped_bytes = 0;
    unsigned long long cached_bytes = 0;
    std::uint32_t cached_blocks = 0;
    m_blocks.ForEach([&](int id, const RegisteredBlock& block) {
        const unsigned int size = block.owner->Size();
        const bool mapped = block.stat == RegisteredBlock::kMapped;
        const bool cached = block.stat == RegisteredBlock::kCached;
        mapped_bytes += HasView(block) ? size : 0;
        cached_bytes += cached ? size : 0;
        cached_blocks += cached ? 1 : 0;
        check.Expect(mapped ? block.m_ref > 0 : block.m_ref == 0, "m_ref against stat");
        check.Expect(HasView(block) == (mapped || cached), "a view against stat");
        check.Expect(m_cache_queue.Contains(id) == cached, "the queue against stat");
    });
    check.Expect(m_cache_queue.Validate(), "the queue's index");
    check.Expect(m_cache_queue.Length() == cached_blocks, "an id too many in the queue");
    check.Expect(mapped_bytes == m_total_mapped, "m_total_mapped");
    check.Expect(cached_bytes == m_total_cached, "m_total_cached");
    return check.What();
}
