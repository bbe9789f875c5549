#ifndef SUPPORT_SEEDS_H
#define SUPPORT_SEEDS_H

#include <functional>

/// Runs `life` with the seeds 1 to `count`, until one fails; its failures tell the seed. With
/// `--seed=N` on the program's command line N alone is lived, however large it is.
/// To be called by a test's own thread.
void ForEachSeed(unsigned count, const std::function<void(unsigned seed)>& life);

/// Takes `--seed=N` out of a command line. @return false if any other argument is left in it.
bool TakeSeed(int argc, char** argv);

#endif
