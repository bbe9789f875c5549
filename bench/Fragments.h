#ifndef BENCH_FRAGMENTS_H
#define BENCH_FRAGMENTS_H

#include <cstddef>
#include <cstdint>
#include <vector>

// One buffer, in the fragments, pages or chunks of each library. All of it fits into the cache of
// each: what is measured is the way to an element, not the way to a disk.

constexpr std::size_t kFragmentBytes = std::size_t{8} << 20;
constexpr std::size_t kFragments = 32;
constexpr std::size_t kPerFragment = kFragmentBytes / sizeof(double);
constexpr std::size_t kElements = kFragments * kPerFragment;
constexpr char kFolder[] = "/dev/shm";

/// Elements of one fragment, at random but the same for each library.
inline const std::vector<std::size_t>& RandomElements()
{
    static const std::vector<std::size_t> elements = [] {
        std::vector<std::size_t> made(4096);
        std::uint64_t state = 88172645463325252;
        for (std::size_t& element : made) {
            state = state * 6364136223846793005 + 1442695040888963407;
            element = static_cast<std::size_t>(state >> 33) % kPerFragment;
        }
        return made;
    }();
    return elements;
}

#endif
