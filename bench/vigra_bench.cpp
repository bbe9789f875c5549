// The buffer of the fragments as a chunked array of VIGRA's, with all of its chunks in its cache
// and its file in shared memory.

#include "Fragments.h"

#include <benchmark/benchmark.h>
#include <vigra/multi_array_chunked.hxx>

namespace
{
using Array = vigra::ChunkedArrayTmpFile<1, double>;
using Shape = vigra::Shape1;

Array& array()
{
    static Array made(Shape(static_cast<vigra::MultiArrayIndex>(kElements)),
                      Shape(static_cast<vigra::MultiArrayIndex>(kPerPage)),
                      vigra::ChunkedArrayOptions().cacheMax(static_cast<int>(kPages) + 2), kFolder);
    return made;
}

void Write(benchmark::State& state)
{
    Array& buffer = array();
    for (auto _ : state) {
        std::size_t number = 0;
        for (auto at = buffer.begin(), end = buffer.end(); at != end; ++at)
            *at = static_cast<double>(number++);
    }
}
BENCHMARK(Write)->Name("fragments/write/vigra");

void Read(benchmark::State& state)
{
    const Array& buffer = array();
    for (auto _ : state) {
        double sum = 0;
        for (auto at = buffer.begin(), end = buffer.end(); at != end; ++at)
            sum += *at;
        benchmark::DoNotOptimize(sum);
    }
}
BENCHMARK(Read)->Name("fragments/read/vigra");

/// Calls work(values, how many, number of the first) for each chunk of the array.
template <class ChunkedArray, class Work>
void for_each_chunk(ChunkedArray& buffer, Work work)
{
    const auto end = buffer.chunk_end(Shape(0), buffer.shape());
    for (auto at = buffer.chunk_begin(Shape(0), buffer.shape()); at != end; ++at)
        work(at->data(), static_cast<std::size_t>(at->shape(0)),
             static_cast<std::size_t>(at.chunkStart()[0]));
}

void WriteChunks(benchmark::State& state)
{
    for (auto _ : state) {
        for_each_chunk(array(), Number);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(WriteChunks)->Name("fragments/write_chunks/vigra");

void ReadChunks(benchmark::State& state)
{
    for (auto _ : state) {
        double sum = 0;
        for_each_chunk(array(), [&sum](const double* values, std::size_t count, std::size_t) {
            sum += SumOf(values, count);
        });
        benchmark::DoNotOptimize(sum);
    }
}
BENCHMARK(ReadChunks)->Name("fragments/read_chunks/vigra");
} // namespace
