#include "support/Seeds.h"

#include <gtest/gtest.h>
#include <optional>
#include <string>

namespace
{
std::optional<unsigned> g_first, g_times;
std::uint64_t g_steps = 0;
} // namespace

void ForEachSeed(unsigned count, unsigned steps, const std::function<void(unsigned seed)>& life)
{
    const unsigned first = g_first.value_or(1);
    const unsigned end = first + (g_times ? *g_times * count : g_first ? 1 : count);
    for (unsigned seed = first; seed != end && !testing::Test::HasFailure(); ++seed) {
        SCOPED_TRACE("lived once more by --seed=" + std::to_string(seed));
        life(seed);
        g_steps += steps;
    }
}

bool TakeSeed(const std::string& argument)
{
    unsigned number = 0;
    char rest = 0;
    if (std::sscanf(argument.c_str(), "--seed=%u%c", &number, &rest) == 1)
        g_first = number;
    else if (std::sscanf(argument.c_str(), "--times=%u%c", &number, &rest) == 1)
        g_times = number;
    else
        return false;
    return true;
}

void TellSteps()
{
    if (g_times)
        std::printf("%llu steps\n", static_cast<unsigned long long>(g_steps));
}
