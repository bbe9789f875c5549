// The typed layer beside the calls that it is made of, and cursors in threads beside one.

#include "Fragments.h"
#include "Support.h"

#include "Mem/Mem_MemFragmentsAllocator.h"
#include "mempager/mempager.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <thread>
#include <vector>

namespace
{
using Buffer = mempager::buffer<double>;
using Below = Mem_MemFragmentsAllocator;

// Mapping -----------------------------------------------------------------------------------------

void LayerMap(benchmark::State& state)
{
    SetCacheLimit(1000);
    mempager::piece<char> piece(8 * kMb);
    for (auto _ : state) {
        const auto bytes = piece.map();
        benchmark::DoNotOptimize(bytes.data());
    }
}
BENCHMARK(LayerMap)->Name("typed/map/mempager");

void BelowMap(benchmark::State& state)
{
    SetCacheLimit(1000);
    MEM_PagerInfo piece;
    Allocate(piece, 8 * kMb);
    for (auto _ : state) {
        if (piece.Map() != 0)
            state.SkipWithError("Map");
        benchmark::DoNotOptimize(piece.Ptr());
        piece.Unmap();
    }
}
BENCHMARK(BelowMap)->Name("typed/map/below");

// Elements ----------------------------------------------------------------------------------------
// One page of both is used again and again, so that both meet the same caches.

constexpr std::size_t kCount = kPerPage / 8; // 1 MB of elements, in one fragment

Buffer& layer_buffer()
{
    SetCacheLimit(1000);
    static Buffer buffer(kElements, {1, kFragmentBytes});
    for (const std::span<double> part : buffer.parts())
        TouchPages(part.data(), part.size_bytes());
    return buffer;
}

Below& below_buffer()
{
    SetCacheLimit(1000);
    static Below buffer(sizeof(double), kElements, kFragmentBytes);
    for (std::size_t number = 0; number < kElements; number += kPage / sizeof(double))
        *static_cast<double*>(buffer.GetPointerAtIndex(number * sizeof(double))) = 0;
    buffer.GetPointerAtIndex(0);
    return buffer;
}

double& element(const mempager::cursor<double>& buffer, std::size_t number)
{
    return buffer[number];
}

double& element(Below& buffer, std::size_t number)
{
    return *static_cast<double*>(buffer.GetPointerAtIndex(number * sizeof(double)));
}

template <class Elements>
void read(benchmark::State& state, Elements& elements)
{
    for (auto _ : state) {
        double sum = 0;
        for (std::size_t number = 0; number < kCount; ++number)
            sum += element(elements, number);
        benchmark::DoNotOptimize(sum);
    }
}

template <class Elements>
void write(benchmark::State& state, Elements& elements)
{
    for (auto _ : state)
        for (std::size_t number = 0; number < kCount; ++number)
            element(elements, number) = static_cast<double>(number);
}

template <class Elements>
void random(benchmark::State& state, Elements& elements)
{
    for (auto _ : state) {
        double sum = 0;
        for (const std::size_t number : RandomElements())
            sum += element(elements, number);
        benchmark::DoNotOptimize(sum);
    }
}

/// In two fragments by turns.
template <class Elements>
void alternate(benchmark::State& state, Elements& elements)
{
    for (auto _ : state) {
        double sum = 0;
        for (const std::size_t number : RandomElements())
            sum += element(elements, number) + element(elements, kElements - 1 - number);
        benchmark::DoNotOptimize(sum);
    }
}

void LayerRead(benchmark::State& state)
{
    const auto elements = layer_buffer().elements();
    read(state, elements);
}
BENCHMARK(LayerRead)->Name("typed/read/mempager");

void BelowRead(benchmark::State& state)
{
    read(state, below_buffer());
}
BENCHMARK(BelowRead)->Name("typed/read/below");

void LayerIterate(benchmark::State& state)
{
    const auto elements = layer_buffer().elements();
    for (auto _ : state) {
        double sum = 0;
        for (auto at = elements.begin(), end = at + kCount; at != end; ++at)
            sum += *at;
        benchmark::DoNotOptimize(sum);
    }
}
BENCHMARK(LayerIterate)->Name("typed/iterate/mempager");

void LayerWrite(benchmark::State& state)
{
    const auto elements = layer_buffer().elements();
    write(state, elements);
}
BENCHMARK(LayerWrite)->Name("typed/write/mempager");

void BelowWrite(benchmark::State& state)
{
    write(state, below_buffer());
}
BENCHMARK(BelowWrite)->Name("typed/write/below");

void LayerRandom(benchmark::State& state)
{
    const auto elements = layer_buffer().elements();
    random(state, elements);
}
BENCHMARK(LayerRandom)->Name("typed/random/mempager");

void BelowRandom(benchmark::State& state)
{
    random(state, below_buffer());
}
BENCHMARK(BelowRandom)->Name("typed/random/below");

void LayerAlternate(benchmark::State& state)
{
    const auto elements = layer_buffer().elements();
    alternate(state, elements);
}
BENCHMARK(LayerAlternate)->Name("typed/alternate/mempager");

void BelowAlternate(benchmark::State& state)
{
    Below& buffer = below_buffer();
    alternate(state, buffer);
}
BENCHMARK(BelowAlternate)->Name("typed/alternate/below");

// Scans -------------------------------------------------------------------------------------------

void LayerScan(benchmark::State& state)
{
    Buffer& buffer = layer_buffer();
    for (auto _ : state) {
        double sum = 0;
        for (const std::span<double> part : buffer.parts())
            sum += SumOf(part.data(), part.size());
        benchmark::DoNotOptimize(sum);
    }
}
BENCHMARK(LayerScan)->Name("typed/scan/mempager");

void BelowScan(benchmark::State& state)
{
    Below& buffer = below_buffer();
    for (auto _ : state) {
        double sum = 0;
        for (std::size_t at = 0, length = 0; at < buffer.GetTotalBufferSize(); at += length) {
            length = buffer.GetTotalBufferSize() - at;
            const void* const values = buffer.GetRangeFromIndex(at, length);
            sum += SumOf(static_cast<const double*>(values), length / sizeof(double));
        }
        benchmark::DoNotOptimize(sum);
    }
}
BENCHMARK(BelowScan)->Name("typed/scan/below");

// Threads -----------------------------------------------------------------------------------------

/// So many cursors, in a thread each, share the work on all elements.
void Cursors(benchmark::State& state)
{
    Buffer& buffer = layer_buffer();
    const auto count = static_cast<std::size_t>(state.range(0));
    const auto work = [&buffer, count](std::size_t part) {
        const auto mine = buffer.elements();
        const std::size_t end = kElements * (part + 1) / count;
        for (std::size_t i = kElements * part / count; i < end; ++i)
            mine[i] = std::sqrt(mine[i] + static_cast<double>(i));
    };
    for (auto _ : state) {
        std::vector<std::jthread> threads;
        for (std::size_t part = 0; part < count; ++part)
            threads.emplace_back(work, part);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kElements));
}
BENCHMARK(Cursors)->Name("typed/cursors")->Arg(1)->Arg(4)->UseRealTime();
} // namespace
