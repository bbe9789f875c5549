#include "support/Seeds.h"

#include <gtest/gtest.h>
#include <optional>
#include <string>

namespace
{
std::optional<unsigned> g_only;
} // namespace

void ForEachSeed(unsigned count, const std::function<void(unsigned seed)>& life)
{
    const unsigned first = g_only.value_or(1);
    const unsigned end = first + (g_only ? 1 : count);
    for (unsigned seed = first; seed != end && !testing::Test::HasFailure(); ++seed) {
        SCOPED_TRACE("lived once more by --seed=" + std::to_string(seed));
        life(seed);
    }
}

bool TakeSeed(const std::string& argument)
{
    unsigned seed = 0;
    char rest = 0;
    if (std::sscanf(argument.c_str(), "--seed=%u%c", &seed, &rest) != 1)
        return false;
    g_only = seed;
    return true;
}
