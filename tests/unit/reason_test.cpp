// Hunts a refused call that leaves no reason, or that of another call, limit or thread; and a
// host's log that fills up with one failure.

#include "Mem/Mem_MemInfo.h"
#include "Mem/Mem_MemPager.h"
#include "Mem/Mem_Reason.h"
#include "Mem/Mem_ShmmHeap.h"
#include "Zor/Zor_Buffer.h"
#include "support/FailingPlatform.h"
#include "support/Mem_TestAccess.h"
#include "support/PagerWorld.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <sstream>
#include <thread>

namespace
{
using Limit = Mem_Reason::Limit;
using Operation = Mem_Reason::Operation;

struct Reasons : testing::Test {
    const TestConfiguration::Scope settings;
    Memory_ShmmHeap heap;
    const std::unique_ptr<MEM_MemPager> pager = Mem_TestAccess::MakePager(&heap);
    MEM_PagerInfo info;
};

TEST_F(Reasons, AreKeptOfEachRefusedCall)
{
    MEM_PagerInfo freed;
    ASSERT_EQ(pager->Allocate(1000, &freed, 0), 0);
    MEM_PagerInfo gone = freed;
    gone.Unmap();
    freed.Unmap();
    pager->Free(freed);
    MEM_MemInfo forged;
    const struct {
        const char* name;
        std::function<void()> refused;
        Operation operation;
        Limit limit;
        std::uint64_t wanted;
    } cases[] = {
        {"nothing", [&] { pager->Allocate(0, &info, 0); }, Operation::Allocate, Limit::Request, 0},
        {"empty", [&] { info.Map(); }, Operation::Map, Limit::Request, 0},
        {"forged", [&] { pager->Register(forged); }, Operation::Register, Limit::Descriptor, 0},
        {"freed", [&] { EXPECT_THROW(gone.Map(), RWBoundsErr); }, Operation::Other,
         Limit::FreedPiece, 0},
        {"no region",
         [&] {
             const FailingPlatform failing(FailingPlatform::Create, 1, 2);
             pager->Allocate(5000, &info, 0);
         },
         Operation::Allocate, Limit::Unknown, 5000},
        {"no view",
         [&] {
             const FailingPlatform failing(FailingPlatform::View, 1, 2);
             pager->Allocate(7000, &info, 0);
         },
         Operation::Allocate, Limit::Unknown, 7000},
    };
    for (const auto& now : cases) {
        const std::uint64_t before = Mem_Reason::Last().number;
        now.refused();
        const Mem_Reason reason = Mem_Reason::Last();
        EXPECT_EQ(reason.number, before + 1) << now.name;
        EXPECT_EQ(reason.operation, now.operation) << now.name;
        EXPECT_EQ(reason.limit, now.limit) << now.name;
        EXPECT_EQ(reason.wanted, now.wanted) << now.name;
    }
    EXPECT_EQ(Mem_Reason::Last().error, FailingPlatform::other_error);
    std::thread([] { EXPECT_EQ(Mem_Reason::Last().operation, Operation::None); }).join();
}

TEST_F(Reasons, AreOneReadableLine)
{
    std::ostringstream line;
    pager->Allocate(0, &info, 0);
    line << Mem_Reason::Last();
    EXPECT_EQ(line.str(), "a new piece was refused: it is of 0 bytes");
}

TEST_F(Reasons, OfOneCauseAreToldOnceWithACount)
{
    LogCapture log(3);
    {
        const FailingPlatform failing(FailingPlatform::Create, 1, 1000);
        for (unsigned size = 1000; size <= 5000; size += 1000)
            EXPECT_EQ(pager->Allocate(size, &info, 0), -1);
    }
    EXPECT_EQ(log.Count(3, "MEM_MemPager::Allocate|\tTried to allocate"), 1);
    EXPECT_EQ(pager->Allocate(1000, &info, 0), 0);
    EXPECT_EQ(log.Count(3, "MEM_MemPager::Allocate|\tThe last failure came 4 times more"), 1);
}

} // namespace
