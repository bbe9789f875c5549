// A buffer in fragments, beside plain memory: element by element, range by range, and as it grows.

#include "Fragments.h"
#include "Support.h"

#include "Mem/Mem_MemFragmentsAllocator.h"

#include <benchmark/benchmark.h>

#include <ctime>
#include <vector>

namespace
{
void count_elements(benchmark::State& state)
{
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kElements));
}

double& element(Mem_MemFragmentsAllocator& buffer, std::size_t number)
{
    return *static_cast<double*>(buffer.GetPointerAtIndex(number * sizeof(double)));
}

/// Its fragments all have views, in the cache if not in use, with their pages at hand.
Mem_MemFragmentsAllocator& our_buffer()
{
    SetCacheLimit(1000);
    static Mem_MemFragmentsAllocator buffer(sizeof(double), kElements, kFragmentBytes);
    for (std::size_t number = 0; number < kElements; number += kPage / sizeof(double))
        element(buffer, number) = 1;
    return buffer;
}

std::vector<double>& plain_buffer()
{
    static std::vector<double> buffer(kElements, 1);
    return buffer;
}

// Element by element ------------------------------------------------------------------------------

void OurRead(benchmark::State& state)
{
    Mem_MemFragmentsAllocator& buffer = our_buffer();
    for (auto _ : state) {
        double sum = 0;
        for (std::size_t number = 0; number < kElements; ++number)
            sum += element(buffer, number);
        benchmark::DoNotOptimize(sum);
    }
    count_elements(state);
}
BENCHMARK(OurRead)->Name("fragments/read/mempager");

void PlainRead(benchmark::State& state)
{
    const std::vector<double>& buffer = plain_buffer();
    for (auto _ : state) {
        double sum = SumOf(buffer.data(), kElements);
        benchmark::DoNotOptimize(sum);
    }
    count_elements(state);
}
BENCHMARK(PlainRead)->Name("fragments/read/plain");

void OurWrite(benchmark::State& state)
{
    Mem_MemFragmentsAllocator& buffer = our_buffer();
    for (auto _ : state)
        for (std::size_t number = 0; number < kElements; ++number)
            element(buffer, number) = static_cast<double>(number);
    count_elements(state);
}
BENCHMARK(OurWrite)->Name("fragments/write/mempager");

void PlainWrite(benchmark::State& state)
{
    std::vector<double>& buffer = plain_buffer();
    for (auto _ : state) {
        Number(buffer.data(), kElements, 0);
        benchmark::ClobberMemory();
    }
    count_elements(state);
}
BENCHMARK(PlainWrite)->Name("fragments/write/plain");

void OurRandom(benchmark::State& state)
{
    Mem_MemFragmentsAllocator& buffer = our_buffer();
    for (auto _ : state) {
        double sum = 0;
        for (const std::size_t number : RandomElements())
            sum += element(buffer, number);
        benchmark::DoNotOptimize(sum);
    }
}
BENCHMARK(OurRandom)->Name("fragments/random/mempager");

// Range by range ----------------------------------------------------------------------------------

/// Calls work(values, how many, number of the first) for each range.
template <class Work>
void for_each_range(Mem_MemFragmentsAllocator& buffer, Work work)
{
    std::size_t length = 0;
    for (std::size_t at = 0; at < buffer.GetTotalBufferSize(); at += length) {
        length = buffer.GetTotalBufferSize() - at;
        auto* const values = static_cast<double*>(buffer.GetRangeFromIndex(at, length));
        work(values, length / sizeof(double), at / sizeof(double));
    }
}

/// The same in one piece, of the size of what is mapped at a time: one fragment, again and again.
void PlainRange(benchmark::State& state)
{
    const std::vector<double>& buffer = plain_buffer();
    for (auto _ : state)
        for (std::size_t i = 0; i < kFragments; ++i)
            benchmark::DoNotOptimize(SumOf(buffer.data(), kElements / kFragments));
    count_elements(state);
}
BENCHMARK(PlainRange)->Name("fragments/range/fragment");

void OurRange(benchmark::State& state)
{
    Mem_MemFragmentsAllocator& buffer = our_buffer();
    for (auto _ : state) {
        double sum = 0;
        for_each_range(buffer, [&sum](const double* values, std::size_t count, std::size_t) {
            sum += SumOf(values, count);
        });
        benchmark::DoNotOptimize(sum);
    }
    count_elements(state);
}
BENCHMARK(OurRange)->Name("fragments/range/mempager");

void PlainRangeWrite(benchmark::State& state)
{
    std::vector<double>& buffer = plain_buffer();
    for (auto _ : state) {
        for (std::size_t i = 0; i < kFragments; ++i) {
            Number(buffer.data(), kElements / kFragments, i);
            benchmark::ClobberMemory();
        }
    }
    count_elements(state);
}
BENCHMARK(PlainRangeWrite)->Name("fragments/range_write/fragment");

void OurRangeWrite(benchmark::State& state)
{
    Mem_MemFragmentsAllocator& buffer = our_buffer();
    for (auto _ : state) {
        for_each_range(buffer, Number);
        benchmark::ClobberMemory();
    }
    count_elements(state);
}
BENCHMARK(OurRangeWrite)->Name("fragments/range_write/mempager");

// Growth ------------------------------------------------------------------------------------------

/// What this thread has used.
double processor_seconds()
{
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

/// By one whole fragment of 8 MB, from so many MB.
void Growth(benchmark::State& state)
{
    MEM_MemoryConfiguration::GetInstance()->SetSwapMaxSizeInMb(16384);
    SetCacheLimit(100);
    const std::size_t few = static_cast<std::size_t>(state.range(0)) / 8 * kPerPage;
    Mem_MemFragmentsAllocator buffer(sizeof(double), few, kPerPage * sizeof(double));
    for (auto _ : state) {
        const double start = processor_seconds();
        Require(buffer.Reallocate(few + kPerPage) == 0, "Reallocate");
        state.SetIterationTime(processor_seconds() - start);
        buffer.Reallocate(few);
    }
}
BENCHMARK(Growth)->Name("fragments/grow")->Arg(200)->Arg(2000)->UseManualTime();
} // namespace
