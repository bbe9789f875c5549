#ifndef DEMO_STATISTICS_H
#define DEMO_STATISTICS_H

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>

/// What is told of one volume.
struct Summary {
    float least = 0;
    float greatest = 0;
    double mean = 0;
    double deviation = 0; ///< square root of the summed squared distances from the mean
    std::array<std::uint64_t, 64> histogram{}; ///< equal bins between `least` and `greatest`

    bool operator==(const Summary&) const = default;
};

template <class Voxels>
std::array<std::uint64_t, 64> Histogram(const Voxels& voxels, float least, float greatest)
{
    std::array<std::uint64_t, 64> bins{};
    const double span = double{greatest} - least;
    const double scale = span > 0 ? 64 / span : 0;
    for (const float voxel : voxels)
        ++bins[std::min<std::size_t>(63,
                                     static_cast<std::size_t>((voxel - double{least}) * scale))];
    return bins;
}

/// The summary of a range of at least one voxel. Sums run from the first voxel to the last, so
/// that equal voxels give equal results to the last bit wherever they are.
template <class Voxels>
Summary Summarise(const Voxels& voxels)
{
    Summary summary;
    const auto [least, greatest] = std::minmax_element(voxels.begin(), voxels.end());
    summary.least = *least;
    summary.greatest = *greatest;
    double sum = 0;
    for (const float voxel : voxels)
        sum += voxel;
    summary.mean = sum / static_cast<double>(voxels.size());
    double squares = 0;
    for (const float voxel : voxels)
        squares += (voxel - summary.mean) * (voxel - summary.mean);
    summary.deviation = std::sqrt(squares);
    summary.histogram = Histogram(voxels, summary.least, summary.greatest);
    return summary;
}

/// Pearson's correlation of two ranges of one length; 0 if one of them is constant.
template <class Voxels>
double Correlate(const Voxels& a, const Summary& of_a, const Voxels& b, const Summary& of_b)
{
    double products = 0;
    for (std::size_t i = 0; i != a.size(); ++i)
        products += (a[i] - of_a.mean) * (b[i] - of_b.mean);
    const double scale = of_a.deviation * of_b.deviation;
    return scale > 0 ? products / scale : 0;
}

#endif
