// What the number of registered regions adds to the cost of one, and what remains of those that
// have gone. Regions are as small as they can be here.

#include "Support.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <deque>
#include <vector>

#include <malloc.h>

namespace
{
class SmallRegions : public MEM_MemoryConfiguration
{
    unsigned int BaseBlockSize() override { return kPage; }
};

void use_small_regions()
{
    static const bool done = [] {
        MEM_MemoryConfiguration::GetInstance()->SetInstance(new SmallRegions);
        return true;
    }();
    benchmark::DoNotOptimize(done);
    MEM_MemoryConfiguration::GetInstance()->SetCacheSize(4000);
}

/// A piece that fills its region, with a view that is in use.
void allocate(MEM_PagerInfo& piece)
{
    Require(Pager().Allocate(kPage, &piece, 0) == 0, "Allocate");
}

// Many at a time ----------------------------------------------------------------------------------

/// Ten pieces at a time, so that the clock doesn't count for much.
class Ten
{
public:
    void Allocate()
    {
        for (MEM_PagerInfo& piece : m_pieces)
            allocate(piece);
    }
    void Map()
    {
        for (MEM_PagerInfo& piece : m_pieces)
            piece.Map();
    }
    void Unmap()
    {
        for (MEM_PagerInfo& piece : m_pieces)
            piece.Unmap();
    }
    void Free()
    {
        for (MEM_PagerInfo& piece : m_pieces)
            piece.Release();
    }

private:
    std::array<MEM_PagerInfo, 10> m_pieces;
};

/// Sees to it that so many other regions are registered; they only become more.
void register_others(std::size_t count)
{
    static std::deque<MEM_PagerInfo> others;
    use_small_regions();
    while (others.size() < count) {
        allocate(others.emplace_back());
        others.back().Unmap();
    }
}

double seconds_of(Ten& ten, void (Ten::*operation)())
{
    const auto start = std::chrono::steady_clock::now();
    (ten.*operation)();
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    return took.count();
}

/// The median of each operation's time: one that was interrupted doesn't count.
class Samples
{
public:
    explicit Samples(benchmark::State& state) : m_state(state) {}
    ~Samples()
    {
        const auto middle = m_seconds.begin() + static_cast<std::ptrdiff_t>(m_seconds.size() / 2);
        std::nth_element(m_seconds.begin(), middle, m_seconds.end());
        m_state.counters["typical"] = *middle;
    }
    Samples(const Samples&) = delete;
    Samples& operator=(const Samples&) = delete;

    void Add(double seconds_of_ten)
    {
        m_seconds.push_back(seconds_of_ten / 10);
        m_state.SetIterationTime(seconds_of_ten / 10);
    }

private:
    benchmark::State& m_state;
    std::vector<double> m_seconds;
};

/// Times one operation of a round of both, with what the pager needs near at hand.
void Round(benchmark::State& state, void (Ten::*timed)())
{
    register_others(static_cast<std::size_t>(state.range(0)) - 10);
    Ten ten;
    ten.Allocate();
    ten.Unmap();
    Samples samples(state);
    for (auto _ : state) {
        const double map = seconds_of(ten, &Ten::Map);
        const double unmap = seconds_of(ten, &Ten::Unmap);
        samples.Add(timed == &Ten::Map ? map : unmap);
    }
}

void BlocksMap(benchmark::State& state)
{
    Round(state, &Ten::Map);
}

void BlocksUnmap(benchmark::State& state)
{
    Round(state, &Ten::Unmap);
}

void BlocksFree(benchmark::State& state)
{
    register_others(static_cast<std::size_t>(state.range(0)) - 10);
    Ten ten;
    Samples samples(state);
    for (auto _ : state) {
        ten.Allocate();
        ten.Unmap();
        for (int i = 0; i < 10; ++i) {
            ten.Map();
            ten.Unmap();
        }
        samples.Add(seconds_of(ten, &Ten::Free));
    }
}

void BlocksAllocate(benchmark::State& state)
{
    register_others(static_cast<std::size_t>(state.range(0)) - 10);
    Ten ten;
    Samples samples(state);
    for (auto _ : state) {
        samples.Add(seconds_of(ten, &Ten::Allocate));
        ten.Unmap();
        ten.Free();
    }
}

/// The same for regions made by hand, among as many of the library's.
void RawFree(benchmark::State& state)
{
    register_others(static_cast<std::size_t>(state.range(0)) - 10);
    Samples samples(state);
    for (auto _ : state) {
        std::deque<RawRegion> regions;
        std::vector<void*> views;
        views.reserve(10);
        for (int i = 0; i < 10; ++i)
            views.push_back(regions.emplace_back(kPage).Map());
        const auto start = std::chrono::steady_clock::now();
        for (void* const view : views) {
            regions.front().Unmap(view);
            regions.pop_front();
        }
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
        samples.Add(took.count());
    }
}

/// Two locks of each of ten, as a cached map takes, among as many regions: nothing of the library's
/// own is looked at.
void Locks(benchmark::State& state)
{
    register_others(static_cast<std::size_t>(state.range(0)) - 10);
    static WindowUnixMutex locks[10];
    Samples samples(state);
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        for (WindowUnixMutex& lock : locks) {
            for (int pair = 0; pair < 2; ++pair) {
                WindowUnixGuard guard(&lock);
                benchmark::ClobberMemory();
            }
        }
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
        samples.Add(took.count());
    }
}

// In this order, since regions are only added.
void register_for(int count)
{
    const auto add = [count](const char* name, benchmark::internal::Function* function) {
        benchmark::RegisterBenchmark(name, function)->Arg(count)->UseManualTime();
    };
    add("blocks/map", BlocksMap);
    add("blocks/unmap", BlocksUnmap);
    add("blocks/free", BlocksFree);
    add("blocks/raw_free", RawFree);
    add("blocks/locks", Locks);
    add("blocks/allocate", BlocksAllocate);
}

const bool registered = [] {
    for (const int count : {10, 100, 1000, 10000, 100000})
        register_for(count);
    return true;
}();

// One after the other -----------------------------------------------------------------------------

double bytes_in_use()
{
    return static_cast<double>(mallinfo2().uordblks);
}

/// Regions that come and go while one piece stays, so that ids only rise.
void Passing(benchmark::State& state)
{
    use_small_regions();
    MEM_PagerInfo stays;
    allocate(stays);
    const double before = bytes_in_use();
    for (auto _ : state) {
        for (int i = 0; i < state.range(0); ++i) {
            MEM_PagerInfo passes;
            allocate(passes);
            passes.Unmap();
        }
    }
    state.counters["bytes_more"] = bytes_in_use() - before;
}
BENCHMARK(Passing)
    ->Name("passing/regions")
    ->Arg(100000)
    ->Arg(1000000)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);
} // namespace
