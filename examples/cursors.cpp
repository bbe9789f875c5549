// Threads on one buffer, each by a cursor of its own: they write a part of it each, and read all of
// it at the same time.
//
//     cursors [threads]
#include "Common.h"
#include "mempager/buffer.h"

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <exception>
#include <thread>
#include <vector>

namespace
{
constexpr std::size_t kNumbers = 32 << 20; // 256 MB

/// Calls work(number) in so many threads. @return the seconds that they took.
template <class Work>
double InThreads(std::size_t count, Work work)
{
    const auto start = std::chrono::steady_clock::now();
    {
        std::vector<std::jthread> threads;
        for (std::size_t number = 0; number < count; ++number)
            threads.emplace_back(work, number);
    }
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void Write(mempager::buffer<double>& numbers, std::size_t first, std::size_t end)
{
    const auto mine = numbers.elements();
    for (std::size_t i = first; i < end; ++i)
        mine[i] = std::sqrt(static_cast<double>(i));
}

std::size_t CountWrong(const mempager::buffer<double>& numbers)
{
    std::size_t wrong = 0;
    std::size_t i = 0;
    for (const std::span<const double> part : numbers.parts())
        for (const double number : part)
            wrong += number != std::sqrt(static_cast<double>(i++)) ? 1 : 0;
    return wrong;
}
} // namespace

int main(int argc, char** argv)
{
    const std::size_t threads = NumberFrom(argc, argv, 4, 1, 64);
    if (threads == 0) {
        std::fputs("usage: cursors [threads, 1 to 64]\n", stderr);
        return 2;
    }
    try {
        mempager::buffer<double> numbers(kNumbers);
        const double one = InThreads(1, [&](std::size_t) { Write(numbers, 0, kNumbers); });
        const double many = InThreads(threads, [&](std::size_t number) {
            Write(numbers, kNumbers * number / threads, kNumbers * (number + 1) / threads);
        });
        std::atomic<std::size_t> wrong = 0;
        InThreads(threads, [&](std::size_t) { wrong += CountWrong(numbers); });
        std::printf("one thread %.2f s, %zu threads %.2f s; wrong: %zu\n", one, threads, many,
                    wrong.load());
        return wrong == 0 ? 0 : 1;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "cursors: %s\n", failure.what());
        return 1;
    }
}
