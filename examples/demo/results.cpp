#include "results.h"

#include "../Common.h"

#include <algorithm>
#include <limits>

namespace
{

using Group = std::vector<std::size_t>;

void summarise_all(StoredVolumes& volumes, Results& results)
{
    Progress progress("Summaries through the pager", results.summaries.size());
    for (std::size_t copy = 0; copy != results.summaries.size(); ++copy) {
        results.summaries[copy] = Summarise(volumes.Map(copy));
        progress.Step();
    }
}

/// Every second row runs backwards: it starts with the volumes that the cache still holds.
Group partners_of(const Group& group, std::size_t row)
{
    Group partners(group.begin() + static_cast<std::ptrdiff_t>(row) + 1, group.end());
    if (row % 2 != 0)
        std::reverse(partners.begin(), partners.end());
    return partners;
}

void correlate_group(const Group& group, StoredVolumes& volumes, Results& results,
                     Progress& progress)
{
    for (std::size_t row = 0; row != group.size(); ++row) {
        const std::size_t a = group[row];
        const auto first = volumes.Map(a);
        for (const std::size_t b : partners_of(group, row)) {
            results.correlations[{a, b}] =
                Correlate(first, results.summaries[a], volumes.Map(b), results.summaries[b]);
            progress.Step();
        }
    }
}

/// The volumes of one shape in plain memory: the files' own at length, their copies on demand.
class PlainGroup
{
public:
    PlainGroup(const Plan& plan, const Group& group) : m_plan(plan)
    {
        for (const std::size_t copy : group) {
            const std::size_t file = plan.copies[copy].file;
            if (!m_originals.contains(file))
                m_originals[file] =
                    ReadNifti(plan.files[file].path, std::numeric_limits<std::uint32_t>::max());
        }
    }

    void Make(std::size_t copy, std::vector<float>& voxels) const
    {
        const Volume& original = m_originals.at(m_plan.copies[copy].file);
        voxels.resize(original.voxels.size());
        WriteCopy(original, m_plan.copies[copy].round, voxels);
    }

private:
    const Plan& m_plan;
    std::map<std::size_t, Volume> m_originals;
};

void compute_group(const Plan& plan, const Group& group, Results& results, Progress& progress)
{
    const PlainGroup volumes(plan, group);
    std::vector<float> first;
    std::vector<float> second;
    for (const std::size_t copy : group) {
        volumes.Make(copy, first);
        results.summaries[copy] = Summarise(first);
    }
    for (auto a = group.begin(); a != group.end(); ++a) {
        volumes.Make(*a, first);
        for (auto b = a + 1; b != group.end(); ++b) {
            volumes.Make(*b, second);
            results.correlations[{*a, *b}] =
                Correlate(first, results.summaries[*a], second, results.summaries[*b]);
            progress.Step();
        }
    }
}

} // namespace

Results ComputePaged(const Plan& plan, StoredVolumes& volumes)
{
    Results results;
    results.summaries.resize(plan.copies.size());
    summarise_all(volumes, results);
    Progress progress("Pairs through the pager", CountPairs(plan));
    for (const auto& [shape, group] : plan.ByShape())
        correlate_group(group, volumes, results, progress);
    return results;
}

Results ComputePlain(const Plan& plan)
{
    Results results;
    results.summaries.resize(plan.copies.size());
    Progress progress("The same pairs in plain memory", CountPairs(plan));
    for (const auto& [shape, group] : plan.ByShape())
        compute_group(plan, group, results, progress);
    return results;
}

std::size_t CountPairs(const Plan& plan)
{
    std::size_t pairs = 0;
    for (const auto& [shape, group] : plan.ByShape())
        pairs += group.size() * (group.size() - 1) / 2;
    return pairs;
}
