// What all test programs begin with: a role to play as a child, or tests to run.

#include "support/Child.h"
#include "support/Seeds.h"

#include <cstdio>
#include <gtest/gtest.h>

int main(int argc, char** argv)
{
    if (const auto code = Child::PlayRole(argc, argv))
        return *code;
    testing::InitGoogleTest(&argc, argv);
    if (TakeSeed(argc, argv))
        return RUN_ALL_TESTS();
    std::fputs("Beside googletest's own arguments there is only --seed=N.\n", stderr);
    return 2;
}
