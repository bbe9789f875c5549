#ifndef BENCH_FRAGMENTS_H
#define BENCH_FRAGMENTS_H

#include "ByItself.h"

#include <cstddef>
#include <cstdint>
#include <vector>

// One buffer, in the fragments, pages or chunks of each library. All of it fits into the cache of
// each: what is measured is the way to an element, not the way to a disk.

constexpr std::size_t kFragmentBytes = 78643200; // the library's default
constexpr std::size_t kFragments = 4;
constexpr std::size_t kElements = kFragments * kFragmentBytes / sizeof(double);
constexpr std::size_t kPerPage = std::size_t{1} << 20; // elements, where they come in pages of 8 MB
constexpr std::size_t kPages = kElements / kPerPage + 1;
constexpr char kFolder[] = "/dev/shm";

/// What a scan does with a run of elements: it adds them up, or stores their numbers.
BENCH_BY_ITSELF inline double SumOf(const double* values, std::size_t count)
{
    double sum = 0;
    for (std::size_t i = 0; i < count; ++i)
        sum += values[i];
    return sum;
}

BENCH_BY_ITSELF inline void Number(double* values, std::size_t count, std::size_t first)
{
    for (std::size_t i = 0; i < count; ++i)
        values[i] = static_cast<double>(first + i);
}

/// Elements of one page, at random but the same for each library.
inline const std::vector<std::size_t>& RandomElements()
{
    static const std::vector<std::size_t> elements = [] {
        std::vector<std::size_t> made(4096);
        std::uint64_t state = 88172645463325252;
        for (std::size_t& element : made) {
            state = state * 6364136223846793005 + 1442695040888963407;
            element = static_cast<std::size_t>(state >> 33) % kPerPage;
        }
        return made;
    }();
    return elements;
}

#endif
