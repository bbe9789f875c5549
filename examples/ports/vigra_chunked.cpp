// What VIGRA's test of its chunked array does (test/multiarray/test_chunked.cxx there,
// testMultiThreaded): four threads fill a volume of 202 slices of 201 rows of 200, each every
// fourth slice, and then each element is its number.
#include "mempager/buffer.h"

#include <iostream>
#include <numeric>
#include <thread>
#include <vector>

int main()
{
    constexpr std::size_t width = 200, height = 201, depth = 202;
    mempager::buffer<float> volume(width * height * depth, {.together = width});
    {
        std::vector<std::jthread> threads;
        for (std::size_t first = 0; first < 4; ++first)
            threads.emplace_back([&volume, first] {
                const auto mine = volume.elements();
                const auto slices = mine.slices(width, height);
                for (std::size_t z = first; z < depth; z += 4)
                    for (std::size_t y = 0; y < height; ++y) {
                        const auto row = slices[z][y];
                        std::iota(row.begin(), row.end(), float((z * height + y) * width));
                    }
            });
    }
    std::size_t right = 0;
    float next = 0;
    for (const float value : volume.elements())
        right += value == next++ ? 1 : 0;
    std::cout << right << " of " << volume.size() << " are right\n";
    return right == volume.size() ? 0 : 1;
}
