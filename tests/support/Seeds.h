#ifndef SUPPORT_SEEDS_H
#define SUPPORT_SEEDS_H

#include <functional>
#include <string>

/// Runs `life` with the seeds 1 to `count`, until one fails; its failures tell the seed. After
/// TakeSeed() that seed alone is lived.
void ForEachSeed(unsigned count, const std::function<void(unsigned seed)>& life);

/// @return whether the argument is `--seed=N`.
bool TakeSeed(const std::string& argument);

#endif
