#include "volumes.h"

#include <algorithm>

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
    m_pieces[copy] = mempager::piece<float>(original.voxels.size(), mempager::for_overwrite);
    WriteCopy(original, round, m_pieces[copy].map());
    note_mapped();
}

mempager::mapped<const float> StoredVolumes::Map(std::size_t copy)
{
    auto voxels = m_pieces[copy].map_const();
    note_mapped();
    return voxels;
}

void StoredVolumes::note_mapped()
{
    Mem_Status status;
    MEM_MemPager::GetHandle()->GetCurrentStatus(status);
    m_most_mapped = std::max<std::uint64_t>(m_most_mapped, status.total_mapped);
}
