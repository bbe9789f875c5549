// What the programs in examples/ports do, once for each library but for STXXL and VIGRA, which have
// sources of their own here.

#include "Ports.h"
#include "Support.h"

#include "mempager/mempager.h"

#include <benchmark/benchmark.h>
#include <boost/container/vector.hpp>
#include <boost/interprocess/allocators/allocator.hpp>
#include <boost/interprocess/managed_shared_memory.hpp>

#include <algorithm>
#include <array>
#include <functional>
#include <numeric>
#include <thread>

#include <sys/wait.h>

namespace
{
namespace ipc = boost::interprocess;

// A vector is filled and read ---------------------------------------------------------------------

void FillAndCount(benchmark::State& state)
{
    SetCacheLimit(1000);
    for (auto _ : state) {
        mempager::buffer<unsigned> numbers;
        PortNumbers random;
        for (std::size_t i = 0; i < kPortNumbers; ++i)
            numbers.push_back(random.Next());
        const auto all = std::as_const(numbers).elements(4);
        benchmark::DoNotOptimize(std::ranges::count_if(all, IsEven));
    }
}
BENCHMARK(FillAndCount)->Name("ports/vector/mempager");

// Threads on one volume ---------------------------------------------------------------------------

void FillByFour(benchmark::State& state)
{
    SetCacheLimit(1000);
    for (auto _ : state) {
        mempager::buffer<float> volume(kWidth * kHeight * kDepth, {.together = kWidth});
        {
            std::vector<std::jthread> threads;
            for (std::size_t first = 0; first < 4; ++first)
                threads.emplace_back([&volume, first] {
                    const auto mine = volume.elements();
                    const auto slices = mine.slices(kWidth, kHeight);
                    for (std::size_t z = first; z < kDepth; z += 4)
                        for (std::size_t y = 0; y < kHeight; ++y) {
                            const auto row = slices[z][y];
                            std::iota(row.begin(), row.end(),
                                      static_cast<float>((z * kHeight + y) * kWidth));
                        }
                });
        }
        Require(AreNumbered(volume.elements()), "numbers");
    }
}
BENCHMARK(FillByFour)->Name("ports/threads/mempager")->UseRealTime();

// A vector between two processes ------------------------------------------------------------------

/// Starts a reader that waits for a message. @return whether the reader was content.
template <class Make, class Read>
bool between_processes(Make make, Read read)
{
    int ends[2];
    Require(pipe(ends) == 0, "pipe");
    const pid_t reader = fork();
    if (reader == 0) {
        std::array<std::byte, 1024> message;
        const ssize_t length = ::read(ends[0], message.data(), message.size());
        _exit(length > 0 && read(message.data(), static_cast<std::size_t>(length)) ? 0 : 1);
    }
    int status = 1;
    make([&](const void* message, std::size_t length) {
        Require(write(ends[1], message, length) == static_cast<ssize_t>(length), "write");
        waitpid(reader, &status, 0);
    });
    close(ends[0]);
    close(ends[1]);
    return status == 0;
}

void OurVector(benchmark::State& state)
{
    const auto make = [](auto send) {
        mempager::piece<int> numbers(100);
        const auto values = numbers.map();
        std::iota(values.begin(), values.end(), 0);
        const auto bytes = numbers.descriptor();
        send(bytes.data(), bytes.size());
    };
    const auto read = [](const std::byte* message, std::size_t length) {
        const mempager::foreign<int> numbers(std::span(message, length));
        const auto values = numbers.map();
        const std::vector<int> reversed(values.rbegin(), values.rend());
        return std::ranges::is_sorted(reversed, std::greater());
    };
    MEM_MemoryConfiguration::GetInstance()->SetBaseBlockSize(0); // 64 KB, as the peer's segment
    for (auto _ : state)
        Require(between_processes(make, read), "reader");
    MEM_MemoryConfiguration::GetInstance()->SetBaseBlockSize(8);
}
BENCHMARK(OurVector)->Name("ports/processes/mempager")->UseRealTime();

using Segment = ipc::managed_shared_memory;
using Allocator = ipc::allocator<int, Segment::segment_manager>;
using Vector = boost::container::vector<int, Allocator>;

void BoostVector(benchmark::State& state)
{
    const std::string name = "mempager_bench_vector_" + std::to_string(getpid());
    const auto make = [&name](auto send) {
        ipc::shared_memory_object::remove(name.c_str());
        Segment segment(ipc::create_only, name.c_str(), 65536);
        auto* const numbers = segment.construct<Vector>("numbers")(segment.get_segment_manager());
        for (int i = 0; i < 100; ++i)
            numbers->push_back(i);
        send("x", 1);
        Require(segment.find<Vector>("numbers").first == nullptr, "destroyed");
        ipc::shared_memory_object::remove(name.c_str());
    };
    const auto read = [&name](const std::byte*, std::size_t) {
        Segment segment(ipc::open_only, name.c_str());
        auto* const numbers = segment.find<Vector>("numbers").first;
        std::sort(numbers->rbegin(), numbers->rend());
        segment.destroy<Vector>("numbers");
        return true;
    };
    for (auto _ : state)
        Require(between_processes(make, read), "reader");
}
BENCHMARK(BoostVector)->Name("ports/processes/boost")->UseRealTime();
} // namespace
