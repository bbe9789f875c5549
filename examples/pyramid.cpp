// An image, and it again in half its size, and again, up to one pixel: no level is in the address
// space as a whole, which has 256 MB.
//
//     pyramid [side in pixels, a power of two]
//
// Ends with 0 if the one pixel has the mean of all.
#include "Common.h"
#include "mempager/buffer.h"

#include <bit>
#include <cmath>
#include <cstdio>
#include <exception>
#include <span>
#include <vector>

namespace
{
using Level = mempager::buffer<float>;

float Pixel(std::size_t x, std::size_t y)
{
    return static_cast<float>((x ^ y) % 256);
}

Level MakeImage(std::size_t side)
{
    Level image(side * side, mempager::for_overwrite, {.together = side});
    Progress progress("image");
    const auto pixels = image.elements();
    for (std::size_t y = 0; std::span<float> row : pixels.rows()) {
        for (std::size_t x = 0; x < side; ++x)
            row[x] = Pixel(x, y);
        progress(++y, side);
    }
    return image;
}

/// Each pixel of the new level is the mean of four.
Level Halve(const Level& level, std::size_t side)
{
    const std::size_t half = side / 2;
    Level smaller(half * half, mempager::for_overwrite, {.together = half});
    Progress progress(std::to_string(half) + " x " + std::to_string(half));
    const auto from = level.elements();
    const auto to = smaller.elements();
    for (std::size_t y = 0; y < half; ++y) {
        const std::span<const float> upper = from.rows()[2 * y];
        const std::span<const float> lower = from.rows()[2 * y + 1];
        const std::span<float> row = to.rows()[y];
        for (std::size_t x = 0; x < half; ++x)
            row[x] = (upper[2 * x] + upper[2 * x + 1] + lower[2 * x] + lower[2 * x + 1]) / 4;
        progress(y + 1, half);
    }
    return smaller;
}

double MeanOf(const Level& level)
{
    double sum = 0;
    for (const std::span<const float> part : level.parts())
        for (const float pixel : part)
            sum += pixel;
    return sum / static_cast<double>(level.size());
}
} // namespace

int main(int argc, char** argv)
{
    std::size_t side = NumberFrom(argc, argv, 8192, 1, 65536);
    if (!std::has_single_bit(side)) {
        std::fputs("usage: pyramid [side in pixels, a power of two up to 65536]\n", stderr);
        return 2;
    }
    try {
        LimitAddressSpace(256 << 20);
        std::vector<Level> levels;
        levels.push_back(MakeImage(side));
        for (; side > 1; side /= 2)
            levels.push_back(Halve(levels.back(), side));
        const double mean = MeanOf(levels.front());
        const float top = std::as_const(levels.back()).elements()[0];
        std::printf("%zu levels, mean %.3f, top %.3f\n", levels.size(), mean, double{top});
        return std::abs(mean - double{top}) < 0.01 ? 0 : 1;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "pyramid: %s\n", failure.what());
        return 1;
    }
}
