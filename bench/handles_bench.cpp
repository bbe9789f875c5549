// What a handle's operations cost while its piece has a view, beside the locks that they take and
// beside the system calls that they save.

#include "Support.h"

#include "NRVlog/Zor_LogFile.h"

#include <benchmark/benchmark.h>

#include <array>
#include <atomic>
#include <cstdint>
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
    struct alignas(128) Locks {
        WindowUnixMutex stripe;
        WindowUnixMutex pager;
    };
    static Locks of_threads[2];
    Locks& own = of_threads[state.thread_index()];
    for (auto _ : state) {
        for (int operation = 0; operation < 2; ++operation) {
            WindowUnixGuard outer(&own.stripe);
            WindowUnixGuard inner(&own.pager);
            benchmark::ClobberMemory();
        }
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(FourLockPairs)->Name("handles/four_lock_pairs");
/// Locks that no other thread takes: what the machine has to give to two threads.
BENCHMARK(FourLockPairs)->Name("handles/threads_locks")->Threads(1)->Threads(2)->UseRealTime();

/// The floor for a hit: pages of a buffer pool that are pinned and unpinned, in the style of the
/// field. A frame is found in a hash table that nobody changes meanwhile, and counted up and down
/// by one atomic step each; whatever takes the frame away would have to count on its pins being 0.
/// It keeps no order of eviction, no handle's counts and no limit.
class BufferPool
{
public:
    BufferPool()
    {
        for (std::uint64_t page = 0; page < kPages; ++page) {
            std::size_t at = hash(page);
            while (m_frames[at].page != kNone)
                at = (at + 1) % kFrames;
            m_frames[at].page = page;
        }
    }

    char* Pin(std::uint64_t page)
    {
        Frame& frame = find(page);
        std::uint32_t pins = frame.pins.load(std::memory_order_acquire);
        while (!frame.pins.compare_exchange_weak(pins, pins + 1, std::memory_order_acquire)) {
        }
        return frame.bytes;
    }
    void Unpin(std::uint64_t page) { find(page).pins.fetch_sub(1, std::memory_order_release); }

private:
    static constexpr std::size_t kFrames = 1024;
    static constexpr std::uint64_t kPages = 512;
    static constexpr std::uint64_t kNone = ~std::uint64_t{0};

    struct alignas(128) Frame {
        std::uint64_t page = kNone;
        std::atomic<std::uint32_t> pins = 0;
        char bytes[64] = {};
    };

    static std::size_t hash(std::uint64_t page)
    {
        return (page * 0x9E3779B97F4A7C15u) >> 54; // one of kFrames
    }
    Frame& find(std::uint64_t page)
    {
        std::size_t at = hash(page);
        while (m_frames[at].page != page)
            at = (at + 1) % kFrames;
        return m_frames[at];
    }

    std::array<Frame, kFrames> m_frames;
};

void PinAndUnpin(benchmark::State& state)
{
    static const std::unique_ptr<BufferPool> pool = std::make_unique<BufferPool>();
    std::uint64_t page = 17 + static_cast<std::uint64_t>(state.thread_index());
    for (auto _ : state) {
        benchmark::DoNotOptimize(page);
        benchmark::DoNotOptimize(pool->Pin(page));
        pool->Unpin(page);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(PinAndUnpin)->Name("handles/floor");
BENCHMARK(PinAndUnpin)->Name("handles/threads_floor")->Threads(1)->Threads(2)->UseRealTime();

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
