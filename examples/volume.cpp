// A volume of 4 GB in 1 GB of address space: filled, smoothed from slice to slice, grown, cut, and
// compared with values that are worked out directly. At most 16 slices of it, 128 MB, are mapped at
// any moment.
//
//     volume [megabytes]
//
// Where there is no room for that much, it says so and takes half; where a resize finds none, the
// volume stays as it is. Ends with 0 if all values agree, with 77 if there is no room at all, with
// 2 after wrong arguments.
#include "Common.h"
#include "Mem/Mem_Configuration.h"
#include "mempager/buffer.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <exception>
#include <span>
#include <vector>

namespace
{
using Volume = mempager::buffer<double>;

constexpr std::size_t kSide = 1024;
constexpr std::size_t kSlice = kSide * kSide; // voxels, of 8 bytes each
constexpr std::size_t kSliceMegabytes = kSlice * sizeof(double) / 1048576;
constexpr std::size_t kLeastMegabytes = 2 * kSliceMegabytes;
constexpr std::size_t kMostMegabytes = std::size_t{1} << 24;

/// What stands in the voxel of that number before the smoothing: made up, whole, and different
/// from slice to slice.
double Original(std::size_t voxel)
{
    return static_cast<double>(voxel % kSide * 7 + voxel / kSlice % 61 * 131);
}

/// The same after it: the mean over three slices, of which the first and the last have two.
double Smoothed(std::size_t voxel, std::size_t slices)
{
    const std::size_t before = voxel < kSlice ? voxel : voxel - kSlice;
    const std::size_t behind = voxel / kSlice + 1 < slices ? voxel + kSlice : voxel;
    return (Original(before) + Original(voxel) + Original(behind)) / 3;
}

/// Tells how fast a stage goes through the volume's bytes.
class Stage
{
public:
    Stage(const char* name, std::size_t voxels) : m_name(name), m_voxels(voxels) {}
    ~Stage()
    {
        const double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - m_start).count();
        std::printf("  %-32s %5.1f s  %5.2f GB/s\n", m_name, seconds,
                    static_cast<double>(m_voxels * sizeof(double)) / 1e9 / seconds);
    }
    Stage(const Stage&) = delete;
    Stage& operator=(const Stage&) = delete;

private:
    const char* m_name;
    std::size_t m_voxels;
    std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
};

/// From a slice to the end.
void Fill(Volume& volume, std::size_t slice)
{
    const auto voxels = volume.elements();
    const auto slices = voxels.rows();
    for (std::size_t voxel = slice * kSlice; slice < slices.size(); ++slice)
        for (double& value : slices[slice])
            value = Original(voxel++);
}

/// In place: two slices as they were are kept aside.
void Smooth(Volume& volume)
{
    const auto voxels = volume.elements();
    const auto slices = voxels.rows();
    std::vector<double> before(slices[0].begin(), slices[0].end()), here(before);
    for (std::size_t slice = 0; slice < slices.size(); ++slice) {
        const bool last = slice + 1 == slices.size();
        const std::span<const double> behind = last ? std::span(here) : slices[slice + 1];
        const std::span<double> values = slices[slice];
        for (std::size_t i = 0; i < kSlice; ++i)
            values[i] = (before[i] + here[i] + behind[i]) / 3;
        before.swap(here);
        if (!last)
            std::ranges::copy(behind, here.begin());
    }
}

/// Counts the voxels that aren't as they should be: smoothed up to `smoothed` slices.
std::size_t CountWrong(const Volume& volume, std::size_t smoothed)
{
    std::size_t wrong = 0;
    std::size_t voxel = 0;
    for (const std::span<const double> part : volume.parts())
        for (const double value : part) {
            const double right =
                voxel < smoothed * kSlice ? Smoothed(voxel, smoothed) : Original(voxel);
            wrong += value != right ? 1 : 0;
            ++voxel;
        }
    return wrong;
}

/// A volume of `megabytes`, or of half, a quarter, ...: of what there is room for.
Volume MakeVolume(std::size_t megabytes)
{
    std::error_code code;
    for (std::size_t slices = megabytes / kSliceMegabytes; slices >= 2; slices /= 2) {
        Volume volume(slices * kSlice, mempager::for_overwrite, {.together = kSlice}, code);
        if (!code)
            return volume;
        std::printf("There is no room for %zu MB here\n", slices * kSliceMegabytes);
    }
    return {};
}

/// Resizes the volume. Without room for that, it is as it was.
bool ResizeIfThereIsRoom(Volume& volume, std::size_t slices)
{
    std::error_code code;
    volume.resize(slices * kSlice, mempager::for_overwrite, code);
    std::printf(code ? "  no room to resize it to %zu slices\n" : "  resized to %zu slices\n",
                slices);
    return !code;
}

bool Work(Volume& volume)
{
    const std::size_t slices = volume.size() / kSlice;
    const std::size_t more = std::max<std::size_t>(slices / 20, 1);
    std::printf("%zu slices of %zu x %zu voxels, %zu MB\n", slices, kSide, kSide,
                slices * kSliceMegabytes);
    std::size_t wrong = 0;
    if (const Stage stage("filled", slices * kSlice); true)
        Fill(volume, 0);
    if (const Stage stage("smoothed (read and written)", 2 * slices * kSlice); true)
        Smooth(volume);
    if (const Stage stage("compared", slices * kSlice); true)
        wrong = CountWrong(volume, slices);
    if (ResizeIfThereIsRoom(volume, slices + more))
        Fill(volume, slices);
    wrong += CountWrong(volume, slices);
    ResizeIfThereIsRoom(volume, slices / 2 + 1);
    wrong += CountWrong(volume, slices);
    std::printf("  voxels that are wrong: %zu\n", wrong);
    return wrong == 0;
}
} // namespace

int main(int argc, char** argv)
{
    const std::size_t megabytes = NumberFrom(argc, argv, 4096, kLeastMegabytes, kMostMegabytes);
    if (megabytes == 0) {
        std::fprintf(stderr, "usage: volume [megabytes, %zu to %zu]\n", kLeastMegabytes,
                     kMostMegabytes);
        return 2;
    }
    try {
        LimitAddressSpace(1 << 30);
        MEM_MemoryConfiguration::GetInstance()->SetSwapMaxSizeInMb(8000); // then files
        Volume volume = MakeVolume(megabytes);
        if (volume.empty()) {
            std::puts("There is no room for a volume here");
            return 77;
        }
        return Work(volume) ? 0 : 1;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "volume: %s\n", error.what());
        return 1;
    }
}
