// Fails each platform call of a request's road in turn, and each allocation, and looks at what is
// left: hunts a name, descriptor or view that a half-done operation forgets, tables that keep half
// of a change, a lock that stays held, and a failure that nobody is told of.

#include "Mem/Mem_MemInfo.h"
#include "Mem/Mem_MemPager.h"
#include "Mem/Mem_ShmmHeap.h"
#include "support/FailingNew.h"
#include "support/FailingPlatform.h"
#include "support/Footprint.h"
#include "support/Mem_TestAccess.h"
#include "support/PagerWorld.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <new>
#include <thread>
#include <vector>

namespace
{
/// One scenario on a pager and a heap of its own.
struct Stage {
    TestConfiguration::Scope configuration;
    Memory_ShmmHeap heap;
    std::unique_ptr<MEM_MemPager> pager = Mem_TestAccess::MakePager(&heap);
    int refused = 0; // operations that answered -1

    bool Did(int result)
    {
        refused += result != 0 ? 1 : 0;
        return result == 0;
    }
    static void Fill(MEM_PagerInfo& info, int stamp)
    {
        std::memset(info.Ptr(), stamp, info.GetAllocatedSize());
    }
    static bool Holds(MEM_PagerInfo& info, int stamp)
    {
        const auto* bytes = static_cast<const unsigned char*>(info.Ptr());
        return bytes[0] == stamp && bytes[info.GetAllocatedSize() - 1] == stamp;
    }

    /// Allocate three, two of them on one region, let them go to the cache, evict, map anew, free.
    void Road(unsigned long long cache_limit = 2 * 65536 - 1)
    {
        TestConfiguration::cache_limit = cache_limit;
        MEM_PagerInfo small[2];
        MEM_PagerInfo large;
        for (int i = 0; i < 2; ++i)
            if (Did(pager->Allocate(1000, &small[i], 64)))
                Fill(small[i], i + 1);
        if (Did(pager->Allocate(100000, &large, 0)))
            Fill(large, 3);
        for (MEM_PagerInfo* info : {&small[0], &small[1], &large})
            if (info->IsValid())
                Did(info->Unmap()); // the second region pushes the first one out
        for (int i = 0; i < 2; ++i)
            if (small[i].IsValid() && Did(small[i].Map())) {
                EXPECT_TRUE(Holds(small[i], i + 1));
                Did(small[i].Unmap());
            }
        if (large.IsValid() && Did(large.Map())) {
            EXPECT_TRUE(Holds(large, 3));
        }
        pager->ClearCache();
        if (small[0].IsValid())
            Did(small[0].Cache());
        if (large.IsValid())
            Did(pager->Free(large));
    }

    void ExpectNothingLeft() const
    {
        EXPECT_EQ(Mem_TestAccess::Broken(*pager), nullptr);
        Mem_Status status;
        pager->GetCurrentStatus(status);
        EXPECT_EQ(status.blocks_count, 0);
        EXPECT_EQ(status.local_blocks_size + status.local_pieces_size, 0u);
        EXPECT_EQ(status.total_mapped + status.total_cached, 0u);
        EXPECT_TRUE(Mem_TestAccess::HasNoBlocks(heap));
        EXPECT_TRUE(LocksAreFree());
    }

    /// Asked from another thread, since a lock lets its own thread in.
    static bool LocksAreFree()
    {
        bool free = false;
        std::thread([&] { free = Mem_TestAccess::TryAllLocks(); }).join();
        return free;
    }
};

/// Fails each call of `kinds` in turn, `count` times in a row, until a run meets no failure.
void SweepPlatform(unsigned kinds, int count, int expected_refusals)
{
    int n = 1;
    for (bool fired = true; fired; ++n) {
        SCOPED_TRACE(n);
        const Footprint before = Footprint::Now();
        {
            LogCapture log(5);
            Stage stage;
            FailingPlatform failing(kinds, n, count);
            stage.Road();
            stage.ExpectNothingLeft();
            fired = failing.Fired();
            if (!fired || expected_refusals == 0) {
                EXPECT_EQ(stage.refused, 0);
            } else {
                EXPECT_GE(stage.refused, 1);
                EXPECT_GE(log.Count(3, "MEM_MemPager::") + log.Count(5, "MEM_MemPager::Cache|"), 1);
            }
            EXPECT_EQ(fired, log.Size() > 0)
                << "a failure that nobody is told of, or a false alarm";
        }
        EXPECT_EQ(Footprint::Now(), before);
    }
    EXPECT_GT(n, 3);
}

TEST(Sweep, OneRefusedCallIsMadeGoodByGivingUpTheCache)
{
    // Cache() alone doesn't retry: it is the last acquiring call of the road.
    SweepPlatform(FailingPlatform::Create, 1, 0);
    SweepPlatform(FailingPlatform::Unview, 1, 0);
}

TEST(Sweep, TwoRefusedCallsAreToldAndLeaveNothing)
{
    SweepPlatform(FailingPlatform::Create, 2, 1);
    SweepPlatform(FailingPlatform::View, 2, 1);
}

/// Stands for the pager's own handler, on the stage's pager.
MEM_MemPager* pager_of_handler;
void clear_or_throw()
{
    if (pager_of_handler->ClearCache() == 0)
        throw std::bad_alloc();
}

/// Fails each allocation of the road in turn; the handler finds `cached` blocks to give up.
void SweepAllocations(int cached)
{
    std::uint64_t n = 1;
    for (bool fired = true; fired; ++n) {
        SCOPED_TRACE(n);
        const Footprint before = Footprint::Now();
        {
            LogCapture quiet(2);
            Stage stage;
            std::vector<MEM_PagerInfo> waiting(static_cast<std::size_t>(cached));
            for (MEM_PagerInfo& info : waiting) {
                ASSERT_EQ(stage.pager->Allocate(60000, &info, 0, 0, 1), 0);
                info.Unmap();
            }
            bool thrown = false;
            pager_of_handler = stage.pager.get();
            const std::new_handler hosts_own = std::set_new_handler(clear_or_throw);
            {
                FailingNew failing(n);
                try {
                    stage.Road(1 << 20);
                } catch (const std::bad_alloc&) {
                    thrown = true;
                }
                fired = failing.Fired();
            }
            std::set_new_handler(hosts_own);
            // What doesn't throw was made good: by the handler, or by the pager's second try.
            EXPECT_EQ(stage.refused, 0);
            EXPECT_TRUE(fired || !thrown);
            EXPECT_FALSE(thrown && cached > 0);
            EXPECT_EQ(Mem_TestAccess::Broken(*stage.pager), nullptr);
            waiting.clear();
            stage.ExpectNothingLeft();
        }
        EXPECT_EQ(Footprint::Now(), before);
    }
    EXPECT_GT(n, 10u);
}

TEST(Sweep, EachAllocationOfTheRoadMayFail)
{
    SweepAllocations(0);
    SweepAllocations(3);
}

TEST(Sweep, GivingBackNeverAllocates)
{
    Stage stage;
    MEM_PagerInfo first;
    ASSERT_EQ(stage.pager->Allocate(1000, &first, 0), 0);
    auto others = std::make_unique<MEM_PagerInfo[]>(300);
    for (int i = 0; i < 300; ++i)
        ASSERT_EQ(stage.pager->Allocate(70000, &others[static_cast<std::size_t>(i)], 0), 0);
    const auto before = AllocationsOfThisThread();
    for (int i = 0; i < 300; ++i)
        others[static_cast<std::size_t>(i)].Unmap(); // fills the cache, then evicts
    first.Unmap();
    stage.pager->ClearCache();
    for (int i = 0; i < 200; ++i)
        stage.pager->Free(others[static_cast<std::size_t>(i)]);
    for (int i = 200; i < 300; ++i)
        others[static_cast<std::size_t>(i)].Release();
    first.Release();
    EXPECT_EQ(AllocationsOfThisThread(), before);
    others.reset();
    stage.ExpectNothingLeft();
}
} // namespace
