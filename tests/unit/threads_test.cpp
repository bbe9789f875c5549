// Several threads on the same pieces: hunts races, counts that get lost between threads, locks
// taken against their order, at a fork too, and a child that inherits a lock that another held.

#include "Mem/Mem_MemPager.h"
#include "support/Children.h"
#include "support/Mem_TestAccess.h"
#include "support/PagerWorld.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <random>
#include <thread>

namespace
{
constexpr unsigned kPieces = 24; // half of them in each pager
constexpr unsigned kSize = 40000;

MEM_MemPager* PagerOf(unsigned piece)
{
    return piece < kPieces / 2 ? MEM_MemPager::GetHandle() : MEM_MemPager::GetHandleForMP();
}

/// Pieces of both pagers, stamped with their number, that all threads copy their handles from.
struct Shared {
    Shared()
    {
        for (unsigned i = 0; i < kPieces; ++i) {
            EXPECT_EQ(PagerOf(i)->Allocate(kSize, &pieces[i], 0), 0);
            std::memset(pieces[i].Ptr(), static_cast<int>(i), kSize);
            pieces[i].Unmap();
        }
    }
    MEM_PagerInfo pieces[kPieces];
};

bool Holds(const MEM_PagerInfo& info, unsigned stamp)
{
    const auto* bytes = static_cast<const unsigned char*>(info.Ptr());
    return bytes != nullptr && bytes[0] == stamp && bytes[kSize - 1] == stamp;
}

bool MapNested(MEM_PagerInfo& info, unsigned piece)
{
    bool good = info.Map() == 0 && info.Map() == 0;
    MEM_PagerInfo copy = info;
    info.Unmap();
    good = good && Holds(info, piece) && Holds(copy, piece);
    copy.Unmap();
    while (info.Ptr() != nullptr) // a handle that was copied from a mapped one had its own mapping
        info.Unmap();
    return good;
}

bool OwnPiece(unsigned size, MEM_MemPager* pager)
{
    MEM_PagerInfo own;
    if (pager->Allocate(size, &own, 0) != 0)
        return false;
    std::memset(own.Ptr(), 1, size);
    return own.Unmap() == 0 && pager->Free(own) == 0;
}

bool Together(const Shared& shared, unsigned piece, unsigned other, bool guarded)
{
    MEM_PagerInfo infos[3], *array[] = {&infos[0], &infos[1], &infos[2]};
    for (int i = 0; i < 3; ++i)
        infos[i].GetUnmappedInfo(shared.pieces[i == 1 ? other : piece]);
    MEM_MemPager* const pager = PagerOf(piece);
    std::optional<Mem_PagerInfoVecLockGuard> guard;
    if (guarded)
        guard.emplace(pager, array, 3);
    const bool good = pager->MapMemPagerInfoVec(array, 3) == 0 && Holds(infos[0], piece) &&
                      Holds(infos[1], other) && Holds(infos[2], piece);
    pager->UnmapMemPagerInfoVec(array, 3);
    return good;
}

bool Step(const Shared& shared, std::mt19937& random)
{
    const auto below = [&](unsigned end) { return static_cast<unsigned>(random() % end); };
    const unsigned piece = below(kPieces), kind = below(8), half = kPieces / 2;
    MEM_PagerInfo info = shared.pieces[piece];
    if (kind == 0)
        return Together(shared, piece, piece / half * half + below(half), below(2) == 0);
    if (kind == 1)
        return OwnPiece(1 + below(70000), PagerOf(piece));
    if (kind == 2)
        PagerOf(piece)->ClearCache();
    if (kind > 3)
        return MapNested(info, piece);
    info.Cache();
    return info.ReleaseIfUnmapped(true, false) != MEM_INVALID;
}

bool Live(const Shared& shared, unsigned seed, int steps)
{
    bool good = true;
    for (std::mt19937 random(seed); steps > 0; --steps)
        good = Step(shared, random) && good;
    return good;
}

TEST(PagerThreads, MixAllOperationsWhileChildrenAreForked)
{
    TestConfiguration::Scope configuration;
    TestConfiguration::cache_limit = 5 * 65536;
    LogCapture quiet(3);
    Shared shared;
    std::atomic<int> good = 0;
    std::vector<std::jthread> threads;
    for (unsigned seed = 0; seed < 4; ++seed)
        threads.emplace_back([&, seed] { good += Live(shared, seed, 1500) ? 1 : 0; });
    for (unsigned seed = 0; seed < 20; ++seed) {
        EXPECT_EQ(InChild([&] { return Live(shared, seed, 50) ? 0 : 1; }), 0);
        MEM_PagerInfo info, *infos[] = {&info};
        info.GetUnmappedInfo(shared.pieces[seed]);
        const Mem_PagerInfoVecLockGuard guard(PagerOf(seed), infos, 1);
        EXPECT_EQ(InChild([&] { return OwnPiece(kSize, PagerOf(seed)) ? 0 : 1; }), 0);
    }
    threads.clear();
    EXPECT_EQ(good, 4);
    for (MEM_MemPager* pager : {PagerOf(0), PagerOf(kPieces - 1)})
        EXPECT_EQ(Mem_TestAccess::Broken(*pager), nullptr);
    for (const MEM_PagerInfo& info : shared.pieces) {
        const PagerInfoState& state = *Mem_TestAccess::State(info);
        EXPECT_TRUE(state.ref_count == 1 && state.map_count == 0);
    }
    EXPECT_EQ(quiet.Size(), 0u);
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
