// What a miss costs, and what comes of pages found ahead and of huge pages. Compiled twice: for
// this build, and for an older one beside which it is measured (MEMPAGER_TODAY).

#include "Fragments.h"
#include "Support.h"

#include "Mem/Mem_MemFragmentsAllocator.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace
{
#ifdef MEMPAGER_TODAY
const std::string kBuild = "today";
void SetPrefetchSize(std::size_t) {}
void Prefetch(MEM_PagerInfo&, std::size_t, bool) {}
#else
const std::string kBuild = "mempager";
void SetPrefetchSize(std::size_t bytes)
{
    MEM_MemoryConfiguration::GetInstance()->SetPrefetchSize(static_cast<unsigned int>(bytes));
}
void Prefetch(MEM_PagerInfo& piece, std::size_t size, bool to_write)
{
    piece.Prefetch(0, size, to_write ? MEM_TO_WRITE : MEM_TO_READ);
}
#endif

void Use(void* memory, std::size_t size, bool to_write)
{
    if (to_write)
        TouchPages(memory, size);
    else
        benchmark::DoNotOptimize(Sum(memory, size));
}

// A miss ------------------------------------------------------------------------------------------

/// With room for no view each Unmap() ends it.
void OurMiss(benchmark::State& state, bool to_write)
{
    SetCacheLimit(0);
    MEM_PagerInfo piece;
    Allocate(piece, 8 * kMb);
    for (auto _ : state) {
        piece.Map();
        Prefetch(piece, 8 * kMb, to_write);
        Use(piece.Ptr(), 8 * kMb, to_write);
        piece.Unmap();
    }
}

void RawMiss(benchmark::State& state, bool to_write)
{
    const RawRegion region(kRegion);
    region.Fill();
    for (auto _ : state) {
        void* const view = region.Map();
        Use(view, 8 * kMb, to_write);
        region.Unmap(view);
    }
}

/// One byte of a piece, whose neighbours have been used too.
void OurByte(benchmark::State& state, bool to_write)
{
    const auto size = static_cast<std::size_t>(state.range(0));
    std::vector<MEM_PagerInfo> pieces(std::clamp<std::size_t>(64 * kMb / size, 4, 64));
    SetCacheLimit(0);
    for (MEM_PagerInfo& piece : pieces)
        Allocate(piece, size);
    std::size_t number = 0;
    for (auto _ : state) {
        MEM_PagerInfo& piece = pieces[number++ % pieces.size()];
        piece.Map();
        volatile char& byte = static_cast<volatile char*>(piece.Ptr())[size / 2];
        if (to_write)
            byte = 1;
        else
            benchmark::DoNotOptimize(+byte);
        piece.Unmap();
    }
}

// Life --------------------------------------------------------------------------------------------

void OurLives(benchmark::State& state)
{
    SetCacheLimit(1000);
    SetPrefetchSize(256 * kMb);
    const std::size_t size = static_cast<std::size_t>(state.range(0)) * kMb;
    for (auto _ : state)
        LifeInPager(size);
    SetPrefetchSize(0);
}

void RawLives(benchmark::State& state)
{
    const std::size_t size = static_cast<std::size_t>(state.range(0)) * kMb;
    for (auto _ : state)
        RawLife(size);
}

// More than the cache holds -----------------------------------------------------------------------

/// Range by range, over fragments of 32 MB of which half have views.
void OurScan(benchmark::State& state, bool to_write)
{
    constexpr std::size_t fragment = 32 * kMb, all = 8 * fragment;
    SetCacheLimit(128);
    static Mem_MemFragmentsAllocator buffer(1, all, fragment);
    std::size_t length = 0;
    const auto scan = [&] {
        for (std::size_t at = 0; at < all; at += length) {
            length = kMb;
            Use(buffer.GetRangeFromIndex(at, length), length, to_write);
        }
    };
    scan();
    for (auto _ : state)
        scan();
}

constexpr std::size_t kPieces = 64;
constexpr std::size_t kRead = 4 * kMb;

void OurSet(benchmark::State& state)
{
    static std::vector<MEM_PagerInfo> pieces(kPieces);
    SetCacheLimit(256);
    for (MEM_PagerInfo& piece : pieces)
        if (!piece.IsValid())
            Allocate(piece, 8 * kMb);
    Numbers numbers;
    for (auto _ : state) {
        MEM_PagerInfo& piece = pieces[numbers.Below(kPieces)];
        piece.Map();
        benchmark::DoNotOptimize(Sum(piece.Ptr(), kRead));
        piece.Unmap();
    }
}

void ReadSet(benchmark::State& state)
{
    std::vector<std::unique_ptr<RawRegion>> files(kPieces);
    for (auto& file : files) {
        file = std::make_unique<RawRegion>(8 * kMb);
        file->Fill();
    }
    std::vector<char> buffer(kRead);
    Numbers numbers;
    for (auto _ : state) {
        const int file = files[numbers.Below(kPieces)]->File();
        Require(pread(file, buffer.data(), kRead, 0) == static_cast<ssize_t>(kRead), "pread");
        benchmark::DoNotOptimize(Sum(buffer.data(), kRead));
    }
}

/// The time of a write to each page of a new view over the number of pages.
void Fault(benchmark::State& state)
{
    const RawRegion region(kRegion);
    region.Fill();
    void* view = region.Map();
    for (auto _ : state) {
        state.PauseTiming();
        region.Unmap(view);
        view = region.Map();
        state.ResumeTiming();
        TouchPages(view, kRegion);
    }
    region.Unmap(view);
    state.counters["faults"] = kRegion / kPage;
}

[[maybe_unused]] const bool registered = [] {
    for (const bool to_write : {false, true}) {
        const std::string kind = to_write ? "written/" : "read/";
        benchmark::RegisterBenchmark(("misses/" + kind + kBuild).c_str(), OurMiss, to_write);
        benchmark::RegisterBenchmark(("misses/scan_" + kind + kBuild).c_str(), OurScan, to_write);
        benchmark::RegisterBenchmark(("misses/byte_" + kind + kBuild).c_str(), OurByte, to_write)
            ->Arg(4096)
            ->Arg(65536)
            ->Arg(kMb)
            ->Arg(64 * kMb);
#ifndef MEMPAGER_TODAY
        benchmark::RegisterBenchmark(("misses/" + kind + "raw").c_str(), RawMiss, to_write);
#endif
    }
    benchmark::RegisterBenchmark(("misses/life/" + kBuild).c_str(), OurLives)->Arg(8)->Arg(256);
    benchmark::RegisterBenchmark(("misses/set/" + kBuild).c_str(), OurSet);
#ifndef MEMPAGER_TODAY
    benchmark::RegisterBenchmark("misses/life/raw", RawLives)->Arg(8)->Arg(256);
    benchmark::RegisterBenchmark("misses/set/pread", ReadSet);
    benchmark::RegisterBenchmark("misses/fault", Fault);
#endif
    return true;
}();
} // namespace
