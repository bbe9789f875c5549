#ifndef DEMO_VOLUMES_H
#define DEMO_VOLUMES_H

#include "mempager/piece.h"
#include "nifti.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <vector>

/// A volume file that could be read.
struct File {
    std::string path;
    Shape shape;

    std::uint64_t Bytes() const { return VoxelCount(shape) * sizeof(float); }
};

/// A volume of the job: that of a file, moved along one axis. Round 0 is the original, rounds
/// 1, 2, 3 move it by one voxel along x, y, z, rounds 4, 5, 6 by two, and so on.
struct Copy {
    std::size_t file;
    int round;
};

/// The files, and the copies of them that the job works on, those of a file one after the other.
struct Plan {
    std::vector<File> files;
    std::vector<Copy> copies;

    const File& FileOf(std::size_t copy) const { return files[copies[copy].file]; }
    std::uint64_t Bytes() const;

    /// The copies that can be compared with each other.
    std::map<Shape, std::vector<std::size_t>> ByShape() const;
};

/// Copies of all files, round by round, until they come to `goal` bytes. Stays within `room`.
Plan MakePlan(std::vector<File> files, std::uint64_t goal, std::uint64_t room);

/// Writes the copy of that round of `original` to `to`, which has the original's size.
void WriteCopy(const Volume& original, int round, std::span<float> to);

/// The copies of a plan in the pager, each a piece of its own.
class StoredVolumes
{
public:
    explicit StoredVolumes(std::size_t copies) : m_pieces(copies) {}

    /// Stores a copy, unmapped. @throws mempager::error if the pager has no memory for it.
    void Store(std::size_t copy, const Volume& original, int round);

    /// A stored copy, for as long as the result lives. @throws mempager::error for want of room.
    mempager::mapped<const float> Map(std::size_t copy);

    /// The most bytes that the pager had mapped at any time, its cache included.
    std::uint64_t MostMapped() const { return m_most_mapped; }

private:
    void note_mapped();

    std::vector<mempager::piece<float>> m_pieces;
    std::uint64_t m_most_mapped = 0;
};

#endif
