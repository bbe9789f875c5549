// A piece of memory that takes address space only while it is used.
#include "mempager/piece.h"

#include <cstdio>
#include <numeric>

int main()
{
    try {
        mempager::piece<double> samples(1000000); // zeros
        {
            const auto values = samples.map(); // a std::span<double>, until the scope ends
            std::iota(values.begin(), values.end(), 1.0);
        }
        const auto values = samples.map_const();
        std::printf("%.0f\n", std::accumulate(values.begin(), values.end(), 0.0));
    } catch (const mempager::error& failure) {
        std::fprintf(stderr, "first_piece: %s\n", failure.what()); // "piece: no memory left ..."
        return 1;
    }
}
