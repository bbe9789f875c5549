// Whole regions: their life, the misses of the cache, and a working set that the cache can't hold.

#include "Support.h"

#include <benchmark/benchmark.h>
#include <boost/interprocess/mapped_region.hpp>
#include <boost/interprocess/shared_memory_object.hpp>

#include <algorithm>
#include <memory>
#include <utility>
#include <vector>

namespace ipc = boost::interprocess;

namespace
{
// Life --------------------------------------------------------------------------------------------

void OurLives(benchmark::State& state)
{
    SetCacheLimit(1000);
    const std::size_t size = static_cast<std::size_t>(state.range(0)) * kMb;
    for (auto _ : state)
        LifeInPager(size);
}

void RawLives(benchmark::State& state)
{
    const std::size_t size = static_cast<std::size_t>(state.range(0)) * kMb;
    for (auto _ : state)
        RawLife(size);
}
BENCHMARK(OurLives)->Name("regions/life/mempager")->Arg(8)->Arg(256);
BENCHMARK(RawLives)->Name("regions/life/raw")->Arg(8)->Arg(256);

// Miss --------------------------------------------------------------------------------------------

/// With room for one cached view each Unmap() ends the view of the other piece.
void OurMiss(benchmark::State& state)
{
    SetCacheLimit(12);
    MEM_PagerInfo pieces[2];
    for (MEM_PagerInfo& piece : pieces)
        Allocate(piece, 8 * kMb);
    std::size_t turn = 0;
    for (auto _ : state) {
        MEM_PagerInfo& piece = pieces[turn ^= 1];
        piece.Map();
        benchmark::DoNotOptimize(Sum(piece.Ptr(), 8 * kMb));
        piece.Unmap();
    }
}
BENCHMARK(OurMiss)->Name("regions/miss/mempager");

void RawMiss(benchmark::State& state)
{
    const RawRegion regions[2] = {RawRegion(kRegion), RawRegion(kRegion)};
    for (const RawRegion& region : regions)
        region.Fill();
    std::size_t turn = 0;
    void* old_view = regions[turn].Map();
    for (auto _ : state) {
        void* const view = regions[turn ^= 1].Map();
        benchmark::DoNotOptimize(Sum(view, 8 * kMb));
        regions[turn ^ 1].Unmap(std::exchange(old_view, view));
    }
    regions[turn].Unmap(old_view);
}
BENCHMARK(RawMiss)->Name("regions/miss/raw");

// Working set -------------------------------------------------------------------------------------

constexpr unsigned int kLimitInMb = 256;
constexpr std::size_t kPieces = 2 * kLimitInMb / 8;
constexpr std::size_t kRead = 4 * kMb;

/// Calls read(number) for random pieces.
template <class Read>
void read_random_pieces(benchmark::State& state, Read read)
{
    Numbers numbers;
    for (auto _ : state)
        benchmark::DoNotOptimize(read(numbers.Below(kPieces)));
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(kRead));
}

void OurWorkingSet(benchmark::State& state)
{
    static std::vector<MEM_PagerInfo> pieces(kPieces);
    SetCacheLimit(kLimitInMb);
    for (MEM_PagerInfo& piece : pieces)
        if (!piece.IsValid())
            Allocate(piece, 8 * kMb);
    read_random_pieces(state, [](std::size_t number) {
        pieces[number].Map();
        const std::uint64_t sum = Sum(pieces[number].Ptr(), kRead);
        pieces[number].Unmap();
        return sum;
    });
}
BENCHMARK(OurWorkingSet)->Name("regions/set/mempager");

/// The files of both peers.
const RawRegion& file(std::size_t number)
{
    static std::vector<std::unique_ptr<RawRegion>> files = [] {
        std::vector<std::unique_ptr<RawRegion>> made;
        for (std::size_t i = 0; i < kPieces; ++i) {
            made.push_back(std::make_unique<RawRegion>(8 * kMb));
            made.back()->Fill();
        }
        return made;
    }();
    return *files[number];
}

void MappedRegionWorkingSet(benchmark::State& state)
{
    static std::vector<ipc::shared_memory_object> objects;
    for (std::size_t i = objects.size(); i < kPieces; ++i)
        objects.emplace_back(ipc::open_only, file(i).Name().c_str() + 1, ipc::read_write);
    read_random_pieces(state, [](std::size_t number) {
        const ipc::mapped_region region(objects[number], ipc::read_write, 0, 8 * kMb);
        return Sum(region.get_address(), kRead);
    });
}
BENCHMARK(MappedRegionWorkingSet)->Name("regions/set/mapped_region");

void ReadWorkingSet(benchmark::State& state)
{
    std::vector<std::uint64_t> buffer(kRead / sizeof(std::uint64_t));
    read_random_pieces(state, [&buffer](std::size_t number) {
        const ssize_t length = pread(file(number).File(), buffer.data(), kRead, 0);
        Require(length == static_cast<ssize_t>(kRead), "pread");
        return Sum(buffer.data(), kRead);
    });
}
BENCHMARK(ReadWorkingSet)->Name("regions/set/read");
} // namespace
