// The buffer of the fragments as a chunked array of VIGRA's, with all of its chunks in its cache
// and its file in shared memory; and its own test of four threads.

#include "Fragments.h"
#include "Ports.h"

#include <benchmark/benchmark.h>
#include <vigra/multi_array_chunked.hxx>

#include <thread>
#include <vector>

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
using Volume = vigra::ChunkedArrayTmpFile<3, float>;

/// Each fourth slice, as the test does it: element by element, by an iterator.
void fill_slices(Volume& volume, std::size_t first)
{
    auto at = volume.begin();
    for (std::size_t z = first; z < kDepth; z += 4) {
        at.setDim(2, static_cast<vigra::MultiArrayIndex>(z));
        float next = static_cast<float>(z * kWidth * kHeight);
        for (at.setDim(1, 0); at.coord(1) < volume.shape(1); at.incDim(1))
            for (at.setDim(0, 0); at.coord(0) < volume.shape(0); at.incDim(0))
                *at = next++;
    }
}

void FillByFour(benchmark::State& state)
{
    const vigra::Shape3 shape(kWidth, kHeight, kDepth);
    for (auto _ : state) {
        Volume volume(shape, vigra::Shape3(), vigra::ChunkedArrayOptions(), kFolder);
        std::vector<std::thread> threads;
        for (std::size_t first = 0; first < 4; ++first)
            threads.emplace_back(fill_slices, std::ref(volume), first);
        for (std::thread& thread : threads)
            thread.join();
        if (!AreNumbered(volume))
            state.SkipWithError("numbers");
    }
}
BENCHMARK(FillByFour)->Name("ports/threads/vigra")->UseRealTime();
} // namespace
