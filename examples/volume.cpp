// A volume of 4 GB in 1 GB of address space: filled, smoothed from slice to slice, grown, cut, and
// compared with values that are worked out directly. At most two fragments of it, 150 MB, are
// mapped at any moment.
//
//     volume [megabytes]
//
// Where there is no room for that much, it says so and takes half; where a resize finds none, the
// volume stays as it is. Ends with 0 if all values agree, with 77 if there is no room at all, with
// 2 after wrong arguments.
#include "Mem/Mem_Configuration.h"
#include "Mem/Mem_MemFragmentsAllocator.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <span>
#include <stdexcept>
#include <vector>

#include <sys/resource.h>

namespace
{
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

class Volume
{
public:
    explicit Volume(std::size_t slices) : m_voxels(sizeof(double), slices * kSlice, 0) {}

    bool IsValid() const { return m_voxels.IsValid(); }
    std::size_t Slices() const { return m_voxels.GetElementsNumber() / kSlice; }
    bool Resize(std::size_t slices) { return m_voxels.Reallocate(slices * kSlice) == 0; }

    /// Calls work(run, number of its first voxel) for the voxels from `first` up to `end`, in runs
    /// that lie together in memory.
    template <class Work>
    void Walk(std::size_t first, std::size_t end, Work work)
    {
        std::size_t length = 0;
        for (std::size_t at = first * sizeof(double); at < end * sizeof(double); at += length) {
            length = end * sizeof(double) - at;
            void* const run = m_voxels.GetRangeFromIndex(at, length);
            if (run == nullptr)
                throw std::runtime_error("a part of the volume can't be mapped");
            work(std::span(static_cast<double*>(run), length / sizeof(double)),
                 at / sizeof(double));
        }
    }

private:
    Mem_MemFragmentsAllocator m_voxels;
};

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

void Fill(Volume& volume, std::size_t first_slice)
{
    volume.Walk(first_slice * kSlice, volume.Slices() * kSlice,
                [](std::span<double> run, std::size_t first) {
                    for (double& voxel : run)
                        voxel = Original(first++);
                });
}

void ReadSlice(Volume& volume, std::size_t slice, std::vector<double>& to)
{
    auto at = to.begin();
    volume.Walk(slice * kSlice, (slice + 1) * kSlice,
                [&](std::span<double> run, std::size_t) { at = std::ranges::copy(run, at).out; });
}

/// In place: three slices as they were are kept aside.
void Smooth(Volume& volume)
{
    std::vector<double> before(kSlice), here(kSlice), behind(kSlice);
    ReadSlice(volume, 0, here);
    before = here;
    for (std::size_t slice = 0; slice < volume.Slices(); ++slice) {
        ReadSlice(volume, std::min(slice + 1, volume.Slices() - 1), behind);
        volume.Walk(slice * kSlice, (slice + 1) * kSlice,
                    [&](std::span<double> run, std::size_t first) {
                        for (std::size_t i = first % kSlice; double& voxel : run) {
                            voxel = (before[i] + here[i] + behind[i]) / 3;
                            ++i;
                        }
                    });
        before.swap(here);
        here.swap(behind);
    }
}

/// Counts the voxels that aren't as they should be: smoothed up to `smoothed` slices.
std::size_t CountWrong(Volume& volume, std::size_t smoothed)
{
    std::size_t wrong = 0;
    volume.Walk(0, volume.Slices() * kSlice, [&](std::span<double> run, std::size_t first) {
        for (const double voxel : run) {
            const double right =
                first < smoothed * kSlice ? Smoothed(first, smoothed) : Original(first);
            wrong += voxel != right ? 1 : 0;
            ++first;
        }
    });
    return wrong;
}

/// A volume of `megabytes`, or of half, a quarter, ...: of what there is room for.
std::unique_ptr<Volume> MakeVolume(std::size_t megabytes)
{
    for (std::size_t slices = megabytes / kSliceMegabytes; slices >= 2; slices /= 2) {
        auto volume = std::make_unique<Volume>(slices);
        if (volume->IsValid())
            return volume;
        std::printf("There is no room for %zu MB here\n", slices * kSliceMegabytes);
    }
    return nullptr;
}

/// Resizes the volume, for which its last fragment is copied. Without room for that, the volume is
/// as it was.
bool ResizeIfThereIsRoom(Volume& volume, std::size_t slices)
{
    const bool done = volume.Resize(slices);
    std::printf(done ? "  resized to %zu slices\n" : "  no room to resize it to %zu slices\n",
                slices);
    return done;
}

bool Work(Volume& volume)
{
    const std::size_t slices = volume.Slices();
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

bool LimitAddressSpace(rlim_t bytes)
{
    rlimit limit;
    if (getrlimit(RLIMIT_AS, &limit) != 0)
        return false;
    limit.rlim_cur = std::min(bytes, limit.rlim_max);
    return setrlimit(RLIMIT_AS, &limit) == 0;
}

/// The number that the text tells; 0 if it is none, or more than a volume can have here.
std::size_t ParseMegabytes(const char* text)
{
    const char* const end = text + std::strlen(text);
    std::size_t megabytes = 0;
    const auto [rest, error] = std::from_chars(text, end, megabytes);
    return error == std::errc() && rest == end && megabytes <= kMostMegabytes ? megabytes : 0;
}
} // namespace

int main(int argc, char** argv)
{
    const std::size_t megabytes = argc > 1 ? ParseMegabytes(argv[1]) : 4096;
    if (argc > 2 || megabytes < kLeastMegabytes) {
        std::fprintf(stderr, "usage: volume [megabytes, %zu to %zu]\n", kLeastMegabytes,
                     kMostMegabytes);
        return 2;
    }
    if (!LimitAddressSpace(rlim_t{1} << 30)) {
        std::fputs("volume: the address space can't be limited\n", stderr);
        return 1;
    }
    MEM_MemoryConfiguration::GetInstance()->SetSwapMaxSizeInMb(8000); // files only beyond that
    try {
        const std::unique_ptr<Volume> volume = MakeVolume(megabytes);
        if (volume == nullptr) {
            std::puts("There is no room for a volume here");
            return 77;
        }
        return Work(*volume) ? 0 : 1;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "volume: %s\n", error.what());
        return 1;
    }
}
