#ifndef DEMO_RESULTS_H
#define DEMO_RESULTS_H

#include "statistics.h"
#include "volumes.h"

#include <cstddef>
#include <map>
#include <utility>
#include <vector>

/// What the job finds out: one summary for each volume, one correlation for each pair of
/// volumes of the same shape, the lower number first.
struct Results {
    std::vector<Summary> summaries;
    std::map<std::pair<std::size_t, std::size_t>, double> correlations;

    bool operator==(const Results&) const = default;
};

/// The job through the pager.
Results ComputePaged(const Plan& plan, StoredVolumes& volumes);

/// The same job without the pager: reads the files again, and makes each volume anew in plain
/// memory whenever it is looked at.
Results ComputePlain(const Plan& plan);

/// Pairs of volumes of the same shape.
std::size_t CountPairs(const Plan& plan);

#endif
