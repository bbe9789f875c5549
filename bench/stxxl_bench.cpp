// The buffer of the fragments as an STXXL vector, with all of its pages in its cache and its file
// in shared memory; and its own example of a vector.

#include "Fragments.h"
#include "Ports.h"

#include <benchmark/benchmark.h>
#include <stxxl/vector>

#include <cstdlib>
#include <memory>
#include <string>

#include <unistd.h>

namespace
{
// Pages of four blocks of 2 MB.
using Vector = stxxl::VECTOR_GENERATOR<double, 4, kPages + 2>::result;

/// Once for the process.
bool add_disk()
{
    setenv("STXXLLOGFILE", "/dev/null", 0); // else they lie in the current folder
    setenv("STXXLERRLOGFILE", "/dev/null", 0);
    const std::string file =
        std::string(kFolder) + "/mempager_bench_stxxl_" + std::to_string(getpid());
    stxxl::config::get_instance()->add_disk(
        stxxl::disk_config(file, 3 * kElements * sizeof(double), "syscall unlink"));
    return true;
}

void have_disk()
{
    static const bool added = add_disk();
    benchmark::DoNotOptimize(added);
}

Vector& vector()
{
    static const std::unique_ptr<Vector> made = [] {
        have_disk();
        auto filled = std::make_unique<Vector>(kElements);
        for (std::size_t number = 0; number < kElements; ++number)
            (*filled)[number] = 1;
        return filled;
    }();
    return *made;
}

void Read(benchmark::State& state)
{
    const Vector& buffer = vector();
    for (auto _ : state) {
        double sum = 0;
        for (const double value : buffer)
            sum += value;
        benchmark::DoNotOptimize(sum);
    }
}
BENCHMARK(Read)->Name("fragments/read/stxxl");

void Write(benchmark::State& state)
{
    Vector& buffer = vector();
    for (auto _ : state) {
        std::size_t number = 0;
        for (double& value : buffer)
            value = static_cast<double>(number++);
    }
}
BENCHMARK(Write)->Name("fragments/write/stxxl");

void Random(benchmark::State& state)
{
    const Vector& buffer = vector();
    for (auto _ : state) {
        double sum = 0;
        for (const std::size_t number : RandomElements())
            sum += buffer[number];
        benchmark::DoNotOptimize(sum);
    }
}
BENCHMARK(Random)->Name("fragments/random/stxxl");

void FillAndCount(benchmark::State& state)
{
    using Numbers =
        stxxl::VECTOR_GENERATOR<unsigned, 4, 8, 1 << 20>::result; // as the example has it
    have_disk();
    for (auto _ : state) {
        Numbers numbers;
        PortNumbers random;
        for (std::size_t i = 0; i < kPortNumbers; ++i)
            numbers.push_back(random.Next());
        std::size_t even = 0;
        Numbers::const_iterator at = numbers.begin();
        for (std::size_t i = 0; i < numbers.size(); ++i, ++at)
            even += IsEven(*at) ? 1 : 0;
        benchmark::DoNotOptimize(even);
    }
}
BENCHMARK(FillAndCount)->Name("ports/vector/stxxl");
} // namespace
