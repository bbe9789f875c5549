// Forks among threads: hunts locks taken against their order at a fork, a child that inherits a
// lock that another thread held, and a child that frees what is its parent's.

#include "posix/support/Children.h"
#include "support/ThreadsLife.h"

namespace
{
TEST(PagerThreads, MixAllOperationsWhileChildrenAreForked)
{
    LiveTogether([](const Shared& shared) {
        for (unsigned seed = 0; seed < 20; ++seed) {
            EXPECT_EQ(InChild([&] { return Live(shared, seed, 50) ? 0 : 1; }), 0);
            MEM_PagerInfo info, *infos[] = {&info};
            info.GetUnmappedInfo(shared.pieces[seed]);
            const Mem_PagerInfoVecLockGuard guard(PagerOf(seed), infos, 1);
            EXPECT_EQ(InChild([&] { return OwnPiece(SizeOf(0), PagerOf(seed)) ? 0 : 1; }), 0);
        }
    });
}

TEST(PagerThreads, MayForkWhileOneUsesAPagerForTheFirstTime)
{
    std::atomic<bool> holds = false;
    const std::jthread first([&holds] {
        WindowUnixGuard lock(&Mem_TestAccess::Mutex());
        holds = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    });
    while (!holds)
        std::this_thread::yield();
    EXPECT_EQ(InChild([] {
                  CHILD_CHECK(Mem_TestAccess::Mutex().TryCatchMutex());
                  Mem_TestAccess::Mutex().ReleaseMutex();
                  return 0;
              }),
              0);
}

TEST(PagerThreads, LeaveTheRegionsOfAParentToIt)
{
    MEM_PagerInfo parents;
    ASSERT_EQ(MEM_MemPager::GetHandle()->Allocate(1000, &parents, 0), 0);
    EXPECT_EQ(InChild([&] {
                  MEM_PagerInfo childs;
                  CHILD_CHECK(MEM_MemPager::GetHandle()->Allocate(1000, &childs, 0) == 0);
                  CHILD_CHECK(childs.Block() != parents.Block());
                  return MEM_MemPager::GetHandle()->Free(parents);
              }),
              0);
}
} // namespace
