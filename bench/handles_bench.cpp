// What a handle's operations cost while its piece has a view, beside the locks that they take and
// beside the system calls that they save.

#include "Support.h"

#include "NRVlog/Zor_LogFile.h"

#include <benchmark/benchmark.h>

#include <memory>

namespace
{
constexpr unsigned int kEnoughCache = 1000;

/// As a handle takes its stripe, once for each of two operations.
void TwoLockPairs(benchmark::State& state)
{
    static WindowUnixMutex stripe;
    for (auto _ : state) {
        for (int operation = 0; operation < 2; ++operation) {
            WindowUnixGuard lock(&stripe);
            benchmark::ClobberMemory();
        }
    }
}
BENCHMARK(TwoLockPairs)->Name("handles/two_lock_pairs");

/// The same with the pager's mutex taken inside.
void FourLockPairs(benchmark::State& state)
{
    static WindowUnixMutex stripe;
    static WindowUnixMutex pager;
    for (auto _ : state) {
        for (int operation = 0; operation < 2; ++operation) {
            WindowUnixGuard outer(&stripe);
            WindowUnixGuard inner(&pager);
            benchmark::ClobberMemory();
        }
    }
}
BENCHMARK(FourLockPairs)->Name("handles/four_lock_pairs");

void MapAndUnmap(benchmark::State& state, MEM_PagerInfo& piece)
{
    for (auto _ : state) {
        piece.Map();
        benchmark::DoNotOptimize(piece.Ptr());
        piece.Unmap();
    }
}

void Cached(benchmark::State& state)
{
    SetCacheLimit(kEnoughCache);
    MEM_PagerInfo piece;
    Allocate(piece, 8 * kMb);
    MapAndUnmap(state, piece);
}
BENCHMARK(Cached)->Name("handles/cached/mempager");

void Nested(benchmark::State& state)
{
    SetCacheLimit(kEnoughCache);
    MEM_PagerInfo piece;
    Allocate(piece, 8 * kMb);
    piece.Map();
    MapAndUnmap(state, piece);
    piece.Unmap();
}
BENCHMARK(Nested)->Name("handles/nested/mempager");

void CopyAndDestroy(benchmark::State& state)
{
    MEM_PagerInfo piece;
    Allocate(piece, 8 * kMb);
    for (auto _ : state) {
        MEM_PagerInfo copy(piece);
        benchmark::DoNotOptimize(copy);
    }
}
BENCHMARK(CopyAndDestroy)->Name("handles/copy/mempager");

void RawMapAndUnmap(benchmark::State& state)
{
    const RawRegion region(kRegion);
    for (auto _ : state) {
        void* const view = region.Map();
        *static_cast<volatile char*>(view) = 1;
        region.Unmap(view);
    }
}
BENCHMARK(RawMapAndUnmap)->Name("handles/cached/mmap");

// Counters ---------------------------------------------------------------------------------------

/// A second pager, made when its counters are asked for, beside the general one.
MEM_MemPager& counting_pager()
{
    Pager();
    ZorGLog.SetLogLevel(5830000, 7);
    static MEM_MemPager* const pager = MEM_MemPager::GetHandleForMP();
    return *pager;
}

void WithCounters(benchmark::State& state, MEM_MemPager& pager)
{
    SetCacheLimit(kEnoughCache);
    MEM_PagerInfo piece;
    Require(pager.Allocate(8 * kMb, &piece, 0) == 0, "Allocate");
    piece.Unmap();
    MapAndUnmap(state, piece);
}

void CountersOff(benchmark::State& state)
{
    WithCounters(state, Pager());
}
BENCHMARK(CountersOff)->Name("handles/counters/off");

void CountersOn(benchmark::State& state)
{
    WithCounters(state, counting_pager());
}
BENCHMARK(CountersOn)->Name("handles/counters/on");

// Threads ----------------------------------------------------------------------------------------

/// A handle for each thread, on a piece and in a region of its own.
MEM_PagerInfo& piece_of(int thread)
{
    struct alignas(128) Place {
        MEM_PagerInfo piece;
    };
    static Place places[2];
    static const bool made = [] {
        for (Place& place : places)
            Allocate(place.piece, 8 * kMb);
        return true;
    }();
    benchmark::DoNotOptimize(made);
    return places[thread].piece;
}

void ThreadsCached(benchmark::State& state)
{
    MapAndUnmap(state, piece_of(state.thread_index()));
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(ThreadsCached)->Name("handles/threads_cached")->Threads(1)->Threads(2)->UseRealTime();

void ThreadsNested(benchmark::State& state)
{
    MEM_PagerInfo& piece = piece_of(state.thread_index());
    piece.Map();
    MapAndUnmap(state, piece);
    piece.Unmap();
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(ThreadsNested)->Name("handles/threads_nested")->Threads(1)->Threads(2)->UseRealTime();
} // namespace
