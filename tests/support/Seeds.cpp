#include "support/Seeds.h"

#include <charconv>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <string_view>

namespace
{
std::optional<unsigned> g_only;
} // namespace

void ForEachSeed(unsigned count, const std::function<void(unsigned seed)>& life)
{
    const unsigned first = g_only.value_or(1);
    const unsigned last = g_only.value_or(count);
    for (unsigned seed = first; seed <= last; ++seed) {
        SCOPED_TRACE("lived once more by --seed=" + std::to_string(seed));
        life(seed);
        if (testing::Test::HasFailure() || seed == last)
            return;
    }
}

bool TakeSeed(int argc, char** argv)
{
    constexpr std::string_view option = "--seed=";
    for (int i = 1; i < argc; ++i) {
        const std::string_view argument = argv[i];
        if (!argument.starts_with(option))
            return false;
        const char* const end = argument.data() + argument.size();
        unsigned seed = 0;
        const auto read = std::from_chars(argument.data() + option.size(), end, seed);
        if (read.ec != std::errc() || read.ptr != end)
            return false;
        g_only = seed;
    }
    return true;
}
