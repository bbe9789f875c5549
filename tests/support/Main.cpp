// What all test programs begin with: a role to play as a child, or tests to run.

#include "support/Child.h"
#include "support/Seeds.h"

#include <algorithm>
#include <gtest/gtest.h>

int main(int argc, char** argv)
{
    if (const auto code = Child::PlayRole(argc, argv))
        return *code;
    testing::InitGoogleTest(&argc, argv);
    if (!std::all_of(argv + 1, argv + argc, TakeSeed)) {
        std::fputs("Beside googletest's own arguments: --seed=N and --times=N.\n", stderr);
        return 2;
    }
    const int code = RUN_ALL_TESTS();
    TellSteps();
    return code;
}
