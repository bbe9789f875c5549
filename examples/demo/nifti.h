#ifndef DEMO_NIFTI_H
#define DEMO_NIFTI_H

#include <cstdint>
#include <string>
#include <vector>

/// Voxels along each axis, the fastest first.
using Shape = std::vector<int>;

/// Voxels of a volume of that shape.
std::uint64_t VoxelCount(const Shape& shape);

/// One volume of a NIfTI-1 file, scaled as its header says. Voxels that aren't finite are 0.
struct Volume {
    Shape shape;
    std::vector<float> voxels;
};

/// Reads a single-file NIfTI-1 volume (.nii, packed by gzip or not) of either byte order.
/// @throws std::runtime_error that says what is wrong with the file, which includes a volume of
///         more than `most_bytes` as floats.
Volume ReadNifti(const std::string& path, std::uint64_t most_bytes);

#endif
