// Allocate() and Free() among many live pieces, beside Boost.Interprocess, which also carves pieces
// out of shared memory, and beside malloc.

#include "Support.h"

#include <benchmark/benchmark.h>
#include <boost/interprocess/managed_shared_memory.hpp>

#include <memory>
#include <utility>
#include <vector>

namespace ipc = boost::interprocess;

namespace
{
std::size_t size_of_next(Numbers& numbers)
{
    return 64 + numbers.Below(4000);
}

/// Each has Allocate(slot, size) and Free(slot) over slots that start out empty.
class OurPieces
{
public:
    explicit OurPieces(std::size_t count) : m_pieces(count)
    {
        MEM_MemoryConfiguration::GetInstance()->SetSwapMaxSizeInMb(16384);
        SetCacheLimit(1000);
    }
    void Allocate(std::size_t slot, std::size_t size)
    {
        Require(Pager().Allocate(static_cast<unsigned int>(size), &m_pieces[slot], 0) == 0,
                "Allocate");
    }
    void Free(std::size_t slot) { m_pieces[slot].Release(); }

private:
    std::vector<MEM_PagerInfo> m_pieces;
};

class BoostPieces
{
public:
    explicit BoostPieces(std::size_t count)
        : m_name("mempager_bench_" + std::to_string(getpid()) + '_' + std::to_string(count)),
          m_segment(ipc::create_only, m_name.c_str(), count * 2600 + 16 * kMb),
          m_pieces(count)
    {
    }
    ~BoostPieces() { ipc::shared_memory_object::remove(m_name.c_str()); }
    BoostPieces(const BoostPieces&) = delete;
    BoostPieces& operator=(const BoostPieces&) = delete;

    void Allocate(std::size_t slot, std::size_t size) { m_pieces[slot] = m_segment.allocate(size); }
    void Free(std::size_t slot) { m_segment.deallocate(m_pieces[slot]); }

private:
    std::string m_name;
    ipc::managed_shared_memory m_segment;
    std::vector<void*> m_pieces;
};

class MallocPieces
{
public:
    explicit MallocPieces(std::size_t count) : m_pieces(count) {}
    void Allocate(std::size_t slot, std::size_t size)
    {
        m_pieces[slot] = std::malloc(size);
        benchmark::DoNotOptimize(m_pieces[slot]);
    }
    void Free(std::size_t slot) { std::free(m_pieces[slot]); }

private:
    std::vector<void*> m_pieces;
};

/// Pieces that have lived a while: random ones were replaced already. Made once for all runs.
template <class Pieces>
struct Lived {
    explicit Lived(std::size_t a_count) : count(a_count), pieces(a_count + 1)
    {
        for (std::size_t slot = 0; slot < count; ++slot)
            pieces.Allocate(slot, size_of_next(numbers));
        for (std::size_t step = 0; step < count; ++step)
            Replace();
    }

    void Replace()
    {
        const std::size_t slot = numbers.Below(count);
        pieces.Free(slot);
        pieces.Allocate(slot, size_of_next(numbers));
    }

    /// One more piece than those, and it goes at once.
    void Pass()
    {
        pieces.Allocate(count, size_of_next(numbers));
        pieces.Free(count);
    }

    static Lived& Of(std::size_t count)
    {
        static std::unique_ptr<Lived> lived;
        if (lived == nullptr || lived->count != count) {
            lived.reset();
            lived = std::make_unique<Lived>(count);
        }
        return *lived;
    }

    std::size_t count;
    Pieces pieces;
    Numbers numbers;
};

template <class Pieces>
void Replace(benchmark::State& state)
{
    auto& lived = Lived<Pieces>::Of(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state)
        lived.Replace();
}

template <class Pieces>
void Pass(benchmark::State& state)
{
    auto& lived = Lived<Pieces>::Of(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state)
        lived.Pass();
}

/// Each thread has a piece of its own come and go.
void PassInThreads(benchmark::State& state)
{
    if (state.thread_index() == 0)
        SetCacheLimit(1000);
    MEM_PagerInfo stays; // keeps the region
    Require(Pager().Allocate(1000, &stays, 0) == 0, "Allocate");
    for (auto _ : state) {
        MEM_PagerInfo passes;
        Require(Pager().Allocate(1000, &passes, 0) == 0, "Allocate");
        passes.Release();
    }
    state.SetItemsProcessed(state.iterations());
}

/// Records of as many pieces, four lines of each, of which every one leads to the next: what a look
/// at one costs that no cache has.
class Chase
{
public:
    explicit Chase(std::size_t count) : m_records(4 * count)
    {
        for (std::size_t i = 0; i < m_records.size(); ++i)
            m_records[i].next = i;
        Numbers numbers; // one ring of all, in an order that looks random
        for (std::size_t i = m_records.size() - 1; i > 0; --i)
            std::swap(m_records[i].next, m_records[numbers.Below(i)].next);
    }
    void Look() { m_at = m_records[m_at].next; }
    std::size_t At() const { return m_at; }

private:
    struct alignas(64) Record {
        std::size_t next = 0;
    };
    std::vector<Record> m_records;
    std::size_t m_at = 0;
};

void Look(benchmark::State& state)
{
    Chase chase(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state)
        chase.Look();
    benchmark::DoNotOptimize(chase.At());
}

void live_counts(benchmark::internal::Benchmark* benchmark)
{
    benchmark->Arg(10)->Arg(1000)->Arg(100000)->Arg(1000000);
}

BENCHMARK(Pass<OurPieces>)->Name("pieces/pass/mempager")->Apply(live_counts);
BENCHMARK(Pass<BoostPieces>)->Name("pieces/pass/boost")->Apply(live_counts);
BENCHMARK(Pass<MallocPieces>)->Name("pieces/pass/malloc")->Apply(live_counts);
BENCHMARK(PassInThreads)->Name("pieces/threads")->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(Look)->Name("pieces/look")->Apply(live_counts);
BENCHMARK(Replace<OurPieces>)->Name("pieces/replace/mempager")->Apply(live_counts);
BENCHMARK(Replace<BoostPieces>)->Name("pieces/replace/boost")->Apply(live_counts);
BENCHMARK(Replace<MallocPieces>)->Name("pieces/replace/malloc")->Apply(live_counts);
} // namespace
