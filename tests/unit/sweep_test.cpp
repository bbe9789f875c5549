// Fails each platform call of a request's road in turn, and each allocation, and looks at what is
// left: hunts a name, descriptor or view that a half-done operation forgets, tables that keep half
// of a change, a lock that stays held, and a failure that nobody is told of.

#include "Mem/Mem_MemPager.h"
#include "Mem/Mem_ShmmHeap.h"
#include "support/FailingNew.h"
#include "support/FailingPlatform.h"
#include "support/Footprint.h"
#include "support/Mem_TestAccess.h"
#include "support/PagerWorld.h"
#include "support/ThisProcess.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <new>
#include <thread>
#include <utility>
#include <vector>

namespace
{
/// A pager on a heap of its own, with views in its cache to give up.
struct Stage {
    explicit Stage(int cached = 0) : waiting(static_cast<std::size_t>(cached))
    {
        for (MEM_PagerInfo& info : waiting) {
            EXPECT_EQ(pager->Allocate(60000, &info, 0, 0, 1), 0);
            info.Unmap();
        }
    }

    /// Allocates three, two of them on one region, lets them go to the cache, evicts, maps anew,
    /// maps ahead, frees. @return how many operations were refused.
    int Road(unsigned long long cache_limit)
    {
        TestConfiguration::cache_limit = cache_limit;
        TestConfiguration::trim_limit = 1;
        int refused = 0;
        MEM_PagerInfo infos[3];
        const unsigned sizes[] = {1000, 1000, 100000};
        for (int i = 0; i < 3; ++i) {
            refused += pager->Allocate(sizes[i], &infos[i], 64) != 0;
            if (infos[i].IsValid())
                std::memset(infos[i].Ptr(), i + 1, sizes[i]);
        }
        for (MEM_PagerInfo& info : infos)
            refused += info.IsValid() && info.Unmap() != 0;
        for (int i = 0; i < 3; ++i) {
            if (!infos[i].IsValid() || (infos[i].Map() != 0 && ++refused > 0))
                continue;
            EXPECT_EQ(static_cast<char*>(infos[i].Ptr())[sizes[i] - 1], i + 1);
            infos[i].Unmap();
        }
        pager->ClearCache();
        refused += infos[0].IsValid() && infos[0].Cache() != 0;
        pager->Free(infos[2]);
        return refused;
    }

    void ExpectNothingLeft()
    {
        EXPECT_EQ(Mem_TestAccess::Broken(*pager), nullptr);
        waiting.clear();
        Mem_Status status;
        pager->GetCurrentStatus(status);
        EXPECT_EQ(status.local_blocks_size, 0u);
        EXPECT_EQ(status.local_pieces_size, 0u);
        EXPECT_EQ(status.total_mapped, 0u);
        EXPECT_TRUE(Mem_TestAccess::HasNoBlocks(heap));
        // Asked from another thread, since a lock lets its own thread in.
        std::thread([] { EXPECT_TRUE(Mem_TestAccess::TryAllLocks()); }).join();
    }

    TestConfiguration::Scope configuration;
    Memory_ShmmHeap heap;
    std::unique_ptr<MEM_MemPager> pager = Mem_TestAccess::MakePager(&heap);
    std::vector<MEM_PagerInfo> waiting;
};

/// Runs `once` with n = 1, 2, 3, ... until it says that nothing failed.
void Sweep(auto once)
{
    int n = 1;
    for (bool fired = true; fired; ++n) {
        SCOPED_TRACE(n);
        const Footprint before = Footprint::Now();
        fired = once(n);
        EXPECT_EQ(Footprint::Now(), before);
    }
    EXPECT_GT(n, 3);
}

TEST(Sweep, EachPlatformCallOfTheRoadMayFail)
{
    using Failing = FailingPlatform;
    const std::pair<unsigned, int> cases[] = {
        {Failing::Create, 1}, {Failing::Unview, 1}, {Failing::View, 1}, {Failing::Create, 2},
        {Failing::View, 2},   {Failing::Close, 1},  {Failing::Trim, 1}};
    for (const auto& [kind, in_a_row] : cases)
        Sweep([kind = kind, in_a_row = in_a_row](int n) {
            LogCapture log(5);
            Stage stage;
            FailingPlatform failing(kind, n, in_a_row);
            const int refused = stage.Road(2 * 65536 - 1);
            stage.ExpectNothingLeft();
            // One refused call is made good by giving up the cache; a prefetch isn't worth that.
            const int ahead = log.Count(5, "MEM_MemPager::Cache|");
            const bool no_help = failing.Fired() && in_a_row == 2 && ahead == 0;
            const bool is_warned = no_help || (failing.Fired() && kind == Failing::Trim);
            const bool is_told = failing.Fired() && kind != Failing::Close;
            EXPECT_EQ(refused > ahead, no_help);
            EXPECT_EQ(log.Count(3, "MEM_MemPager::") > 0, is_warned);
            EXPECT_EQ(log.Size() > 0, is_told);
            return failing.Fired();
        });
}

TEST(Sweep, EachCallOfAReportMayFailAndTheLogIsWhole)
{
    using Failing = FailingPlatform;
    for (const unsigned kind : {Failing::List, Failing::Write})
        Sweep([kind](int n) {
            const std::string function = "MEM_MemPager::PrintVirtualMemoryStatus|";
            const TempFolder folder;
            Zor_LogFile::SetLogConfigDir(folder.path.c_str());
            const LogCapture log(2);
            Stage stage;
            const Failing failing(kind, n);
            testing::internal::CaptureStderr();
            for (int report = 0; report < 2; ++report) {
                MEM_MemPager::PrintVirtualMemoryStatus();
                stage.pager->PrintSharedMemoryStatus();
            }
            EXPECT_NE(testing::internal::GetCapturedStderr(), "") << "no calls are traced";
            const int unknown = log.Count(2, function + "debug_print_memory_status: Couldn't get");
            EXPECT_LE(unknown, kind == Failing::List ? 1 : 0);
            EXPECT_EQ(log.Count(2, "MEM_MemPager::Print"), 4 * 3 - 2 * unknown);
            return failing.Fired();
        });
}

TEST(Sweep, NothingDependsOnPagesFoundAhead)
{
    const unsigned int before = std::exchange(prefetch_of_this_run, 1000000);
    Sweep([](int n) {
        const LogCapture log(4);
        Stage stage;
        FailingPlatform failing(FailingPlatform::Find, n);
        EXPECT_EQ(stage.Road(2 * 65536 - 1), 0);
        EXPECT_EQ(log.Size(), 0u);
        stage.ExpectNothingLeft();
        return failing.Fired();
    });
    prefetch_of_this_run = before;
}

/// Stands for the pager's own new-handler, on the stage's pager.
MEM_MemPager* pager_of_handler;
void clear_or_throw()
{
    if (pager_of_handler->ClearCache() == 0)
        throw std::bad_alloc();
}

TEST(Sweep, EachAllocationOfTheRoadMayFail)
{
    for (const int cached : {0, 3})
        Sweep([cached](int n) {
            LogCapture quiet(2);
            Stage stage(cached);
            pager_of_handler = stage.pager.get();
            const std::new_handler hosts_own = std::set_new_handler(clear_or_throw);
            bool thrown = false;
            bool fired = false;
            if (const FailingNew failing(static_cast<unsigned>(n)); true) {
                try {
                    EXPECT_EQ(stage.Road(1 << 20), 0);
                } catch (const std::bad_alloc&) {
                    thrown = true;
                }
                fired = failing.Fired();
            }
            std::set_new_handler(hosts_own);
            // What doesn't throw was made good: by the handler, or by the pager's second try.
            const bool may_throw = fired && cached == 0;
            if (!may_throw) {
                EXPECT_FALSE(thrown);
            }
            stage.ExpectNothingLeft();
            return fired;
        });
}
} // namespace
