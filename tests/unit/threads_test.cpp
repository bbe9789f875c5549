// Several threads on the same pieces: hunts races, counts that get lost between threads, and locks
// taken against their order.

#include "support/ThreadsLife.h"

TEST(PagerThreads, ShareTheirPiecesInEveryWay)
{
    LiveTogether([](const Shared&) {});
}
