#include "nifti.h"

#include <zlib.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <stdexcept>

namespace
{

using Header = std::array<char, 348>;
constexpr std::size_t kDim = 40, kDatatype = 70, kVoxelOffset = 108, kSlope = 112, kIntercept = 116,
                      kMagic = 344;

[[noreturn]] void refuse(const std::string& why)
{
    throw std::runtime_error(why);
}

template <class Number>
Number load(const char* at, bool swap)
{
    std::array<char, sizeof(Number)> bytes;
    std::memcpy(bytes.data(), at, bytes.size());
    if (swap)
        std::reverse(bytes.begin(), bytes.end());
    Number number;
    std::memcpy(&number, bytes.data(), bytes.size());
    return number;
}

/// A file that zlib unpacks as it is read.
class Unpacked
{
public:
    explicit Unpacked(const std::string& path) : m_file(gzopen(path.c_str(), "rb"), gzclose)
    {
        if (!m_file)
            refuse("cannot be opened");
    }

    void Read(char* to, std::size_t bytes)
    {
        if (read_some(to, bytes) != bytes)
            refuse("ends before its data does");
    }

    void Skip(std::uint64_t bytes)
    {
        for (std::array<char, 4096> nowhere; bytes != 0;) {
            const std::size_t step = std::min<std::uint64_t>(bytes, nowhere.size());
            Read(nowhere.data(), step);
            bytes -= step;
        }
    }

    /// Reads what is left, so that the checksum at the end is looked at.
    void Finish()
    {
        std::array<char, 4096> nowhere;
        while (read_some(nowhere.data(), nowhere.size()) != 0) {
        }
    }

private:
    std::size_t read_some(char* to, std::size_t bytes)
    {
        const int got = gzread(m_file.get(), to, static_cast<unsigned>(bytes));
        int error = Z_OK;
        const std::string text = gzerror(m_file.get(), &error); // begins with the path
        if (got < 0 || (error != Z_OK && error != Z_STREAM_END))
            refuse("cannot be unpacked" + text.substr(std::min(text.size(), text.rfind(':'))));
        return static_cast<std::size_t>(got);
    }

    std::unique_ptr<gzFile_s, int (*)(gzFile)> m_file;
};

bool is_swapped(const Header& header)
{
    if (load<std::int32_t>(header.data(), false) == 348)
        return false;
    if (load<std::int32_t>(header.data(), true) == 348)
        return true;
    refuse("isn't NIfTI-1");
}

Shape read_shape(const Header& header, bool swap)
{
    const auto dim = [&](int n) {
        return load<std::int16_t>(&header[kDim + static_cast<std::size_t>(n) * 2], swap);
    };
    if (dim(0) < 1 || dim(0) > 7)
        refuse("has an impossible number of dimensions");
    Shape shape;
    for (int n = 1; n <= dim(0); ++n) {
        if (dim(n) < 1)
            refuse("has an empty dimension");
        shape.push_back(dim(n));
    }
    return shape;
}

/// VoxelCount() of a shape from outside, which may be anything.
std::uint64_t checked_count(const Shape& shape, std::uint64_t most_bytes)
{
    std::uint64_t count = 1;
    for (int length : shape) { // cannot overflow: the limit is far below 2^49
        count *= static_cast<std::uint64_t>(length);
        if (count * sizeof(float) > most_bytes)
            refuse("is too large for this demo");
    }
    return count;
}

/// How a file's numbers become voxels.
struct Scale {
    bool swap;
    double slope;
    double intercept;
};

Scale read_scale(const Header& header, bool swap)
{
    const float slope = load<float>(&header[kSlope], swap);
    if (slope == 0 || !std::isfinite(slope))
        return {swap, 1, 0};
    return {swap, slope, load<float>(&header[kIntercept], swap)};
}

template <class Number>
void read_voxels(Unpacked& file, const Scale& scale, std::vector<float>& voxels)
{
    std::vector<char> chunk(65536 * sizeof(Number));
    for (std::size_t done = 0; done != voxels.size();) {
        const std::size_t count = std::min<std::size_t>(65536, voxels.size() - done);
        file.Read(chunk.data(), count * sizeof(Number));
        for (std::size_t i = 0; i != count; ++i) {
            const auto number = load<Number>(&chunk[i * sizeof(Number)], scale.swap);
            const double value = static_cast<double>(number) * scale.slope + scale.intercept;
            const bool fits = std::abs(value) <= double{std::numeric_limits<float>::max()};
            voxels[done++] = fits ? static_cast<float>(value) : 0;
        }
    }
}

void read_voxels(int datatype, Unpacked& file, const Scale& scale, std::vector<float>& voxels)
{
    switch (datatype) {
    case 2:
        return read_voxels<std::uint8_t>(file, scale, voxels);
    case 4:
        return read_voxels<std::int16_t>(file, scale, voxels);
    case 8:
        return read_voxels<std::int32_t>(file, scale, voxels);
    case 16:
        return read_voxels<float>(file, scale, voxels);
    case 64:
        return read_voxels<double>(file, scale, voxels);
    case 256:
        return read_voxels<std::int8_t>(file, scale, voxels);
    case 512:
        return read_voxels<std::uint16_t>(file, scale, voxels);
    case 768:
        return read_voxels<std::uint32_t>(file, scale, voxels);
    default:
        refuse("has voxels of type " + std::to_string(datatype) + ", which this demo doesn't read");
    }
}

void skip_to_voxels(Unpacked& file, const Header& header, bool swap)
{
    const float offset = load<float>(&header[kVoxelOffset], swap);
    if (!(offset >= 352 && offset <= 1e9f))
        refuse("has an impossible voxel offset");
    file.Skip(static_cast<std::uint64_t>(offset) - header.size());
}

} // namespace

std::uint64_t VoxelCount(const Shape& shape)
{
    std::uint64_t count = 1;
    for (int length : shape)
        count *= static_cast<std::uint64_t>(length);
    return count;
}

Volume ReadNifti(const std::string& path, std::uint64_t most_bytes)
{
    Unpacked file(path);
    Header header;
    file.Read(header.data(), header.size());
    const bool swap = is_swapped(header);
    if (std::memcmp(&header[kMagic], "n+1", 4) != 0)
        refuse("isn't a single-file NIfTI-1 volume");

    Volume volume;
    volume.shape = read_shape(header, swap);
    volume.voxels.resize(checked_count(volume.shape, most_bytes));
    skip_to_voxels(file, header, swap);
    const int datatype = load<std::int16_t>(&header[kDatatype], swap);
    read_voxels(datatype, file, read_scale(header, swap), volume.voxels);
    file.Finish();
    return volume;
}
