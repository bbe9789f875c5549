// Hunts, with a real second process: a byte that differs on the other side, a region that goes
// while somebody reads it or stays when nobody does, pagers that end each other's views, and a lost
// maker that ends the reader instead of a call.

#include "support/Leftovers.h"
#include "support/SharedPieces.h"

#include <thread>

namespace
{
TEST(SharedPieces, AreReadToTheLastByteThroughAllThatAViewCanMeet)
{
    Maker maker;
    Pieces pieces(maker.descriptors);
    pieces.ExpectAllBytes();
    EXPECT_EQ(Footprint::Now().maps, maker.before.maps + 4); // an anchor and a view each
    pieces.ExpectAllBytes();
    EXPECT_GT(pieces.pager->ClearCache(), 108005u);
    EXPECT_EQ(Footprint::Now().maps, maker.before.maps + 2);
    EXPECT_TRUE(pieces.HoldAnew());
    EXPECT_EQ(pieces.all[0].Map(), 0);
} // one region mapped, the other cached: so they are freed

// A maker takes its names with it, or leaves them to whoever comes by.
TEST(SharedPieces, OutliveTheirMakerIfTheyWereMapped)
{
    for (const bool is_killed : {false, true})
        for (const bool mapped_first : {false, true}) {
            Maker maker;
            Pieces pieces(maker.descriptors);
            LogCapture log(3);
            if (mapped_first) {
                EXPECT_TRUE(pieces.HoldAnew());
            }
            is_killed ? maker.Kill() : maker.End();
            const bool there = mapped_first || is_killed;
            EXPECT_EQ(pieces.HoldAnew(), there);
            EXPECT_EQ(log.Size() == 0, there);
            const std::string process = std::to_string(maker.process.Id());
            RemoveDeadMappings("NorvaneMemoryBlock_" + process + "_", "/var/tmp");
            EXPECT_EQ(pieces.HoldAnew(), there);
            std::ranges::for_each(pieces.all, &MEM_PagerInfo::Release);
            EXPECT_FALSE(Pieces(maker.descriptors).Map()) << is_killed;
        }
}

TEST(SharedPieces, AreHeldByBothPagersApart)
{
    Maker maker;
    Pieces pieces(maker.descriptors);
    std::thread other([&] { // comes and goes in every way while the first one reads
        for (int n = 0; n < 300; ++n) {
            Pieces its(maker.descriptors, MEM_MemPager::GetHandleForMP());
            EXPECT_TRUE(its.Map());
            EXPECT_TRUE(its.Hold());
            if (n % 2 == 1) {
                EXPECT_TRUE(its.Unmap());
            }
            if (n % 4 == 1) {
                EXPECT_GT(its.pager->ClearCache(), 0u);
            }
        }
    });
    for (int n = 0; n < 300; ++n)
        pieces.ExpectAllBytes();
    other.join();
}
} // namespace
