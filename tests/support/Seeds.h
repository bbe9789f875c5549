#ifndef SUPPORT_SEEDS_H
#define SUPPORT_SEEDS_H

#include <functional>
#include <string>

/// Runs `life`, of at least so many steps, with the seeds 1 to `count`, until one fails; its
/// failures tell the seed. What TakeSeed() has taken changes which seeds they are.
void ForEachSeed(unsigned count, unsigned steps, const std::function<void(unsigned seed)>& life);

/// Takes `--seed=N`, after which that seed alone is lived, or `--times=N`, after which so many
/// times the lives are lived, from that seed on; TellSteps() then prints how many steps that were.
/// @return whether the argument is one of the two.
bool TakeSeed(const std::string& argument);
void TellSteps();

#endif
