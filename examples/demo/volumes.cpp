#include "volumes.h"

#include <algorithm>
#include <stdexcept>

std::uint64_t Plan::Bytes() const
{
    std::uint64_t bytes = 0;
    for (const Copy& copy : copies)
        bytes += files[copy.file].Bytes();
    return bytes;
}

std::map<Shape, std::vector<std::size_t>> Plan::ByShape() const
{
    std::map<Shape, std::vector<std::size_t>> groups;
    for (std::size_t copy = 0; copy != copies.size(); ++copy)
        groups[FileOf(copy).shape].push_back(copy);
    return groups;
}

Plan MakePlan(std::vector<File> files, std::uint64_t goal, std::uint64_t room)
{
    Plan plan{std::move(files), {}};
    std::uint64_t bytes = 0;
    for (int round = 0; bytes < goal; ++round) {
        const std::uint64_t before = bytes;
        for (std::size_t file = 0; file != plan.files.size() && bytes < goal; ++file) {
            if (bytes + plan.files[file].Bytes() > room)
                continue; // a smaller one may still fit
            plan.copies.push_back({file, round});
            bytes += plan.files[file].Bytes();
        }
        if (bytes == before)
            break;
    }
    std::stable_sort(plan.copies.begin(), plan.copies.end(),
                     [](const Copy& a, const Copy& b) { return a.file < b.file; });
    return plan;
}

void WriteCopy(const Volume& original, int round, std::span<float> to)
{
    // Along one axis a volume is a row of slabs; moving it by a voxel turns each slab.
    const std::size_t axis = round == 0 ? 0 : static_cast<std::size_t>(round - 1) % 3;
    const std::size_t distance = static_cast<std::size_t>(round + 2) / 3;
    std::size_t row = 1;
    for (std::size_t i = 0; i < axis && i < original.shape.size(); ++i)
        row *= static_cast<std::size_t>(original.shape[i]);
    const std::size_t length =
        axis < original.shape.size() ? static_cast<std::size_t>(original.shape[axis]) : 1;
    const std::size_t slab = row * length;
    const auto turn = static_cast<std::ptrdiff_t>(row * (distance % length));
    for (std::size_t at = 0; at != original.voxels.size(); at += slab) {
        const std::span<const float> from(&original.voxels[at], slab);
        std::rotate_copy(from.begin(), from.end() - turn, from.end(), &to[at]);
    }
}

void StoredVolumes::Store(std::size_t copy, const Volume& original, int round)
{
    MEM_PagerInfo& piece = m_pieces[copy];
    const std::size_t count = original.voxels.size();
    const auto bytes = static_cast<unsigned>(count * sizeof(float));
    if (MEM_MemPager::GetHandle()->Allocate(bytes, &piece, alignof(float)) != 0)
        throw std::runtime_error("the pager has no memory for the next volume");
    WriteCopy(original, round, {static_cast<float*>(piece.Ptr()), count});
    note_mapped();
    piece.Unmap();
}

void StoredVolumes::note_mapped()
{
    Mem_Status status;
    MEM_MemPager::GetHandle()->GetCurrentStatus(status);
    m_most_mapped = std::max<std::uint64_t>(m_most_mapped, status.total_mapped);
}

StoredVolumes::Mapped::Mapped(StoredVolumes& volumes, std::size_t copy)
    : m_piece(volumes.m_pieces[copy])
{
    if (m_piece.Map() != 0)
        throw std::runtime_error("the pager found no room to map a volume");
    volumes.note_mapped();
}

std::span<const float> StoredVolumes::Mapped::Voxels() const
{
    return {static_cast<const float*>(m_piece.Ptr()),
            static_cast<std::size_t>(m_piece.Size()) / sizeof(float)};
}
