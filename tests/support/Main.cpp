// What all test programs begin with: a role to play as a child, or tests to run.

#include "support/Child.h"
#include "support/Seeds.h"

#include <gtest/gtest.h>

int main(int argc, char** argv)
{
    if (const auto code = Child::PlayRole(argc, argv))
        return *code;
    testing::InitGoogleTest(&argc, argv);
    if (argc == 1 || (argc == 2 && TakeSeed(argv[1])))
        return RUN_ALL_TESTS();
    std::fputs("Beside googletest's own arguments there is only --seed=N.\n", stderr);
    return 2;
}
