// Several threads on the same pieces: hunts races, counts that get lost between threads, locks
// taken against their order, views that end under a client, and blocks that leave the cache in
// another order than each thread has let them go.

#include "Mem/Mem_ShmmHeap.h"
#include "Mem/Mem_Stamp.h"
#include "support/ThreadsLife.h"

#include <algorithm>
#include <chrono>
#include <deque>

namespace
{
TEST(PagerThreads, ShareTheirPiecesInEveryWay)
{
    LiveTogether([](const Shared&) {});
}

/// A thread's blocks, and the order in which it has let them go.
struct Turns {
    MEM_PagerInfo pieces[5];
    std::deque<int> order;

    bool HitOne(std::mt19937& random)
    {
        MEM_PagerInfo& piece = pieces[random() % std::size(pieces)];
        if (piece.Map() != 0)
            return false;
        std::erase(order, piece.Block());
        static_cast<volatile char*>(piece.Ptr())[0] = 1; // a view that has ended would not take it
        if (random() % 4 == 0)
            return true; // to be let go at another turn, or at the end
        while (piece.Ptr() != nullptr)
            if (piece.Unmap() != 0)
                return false;
        order.push_back(piece.Block());
        return true;
    }
    void LetAllGo()
    {
        for (MEM_PagerInfo& piece : pieces)
            for (bool held = piece.Ptr() != nullptr; held; held = piece.Ptr() != nullptr)
                if (piece.Unmap() == 0 && piece.Ptr() == nullptr)
                    order.push_back(piece.Block());
    }
};

/// Has threads hit blocks of their own while `meanwhile` runs over and over.
void HitInTurns(MEM_MemPager& pager, std::span<Turns> all, const std::function<void()>& meanwhile)
{
    for (Turns& turns : all)
        for (MEM_PagerInfo& piece : turns.pieces) {
            ASSERT_EQ(pager.Allocate(40000, &piece, 0), 0);
            piece.Unmap();
            turns.order.push_back(piece.Block());
        }
    std::atomic<int> good = 0;
    std::atomic<int> left = static_cast<int>(all.size());
    std::vector<std::jthread> threads;
    for (Turns& turns : all)
        threads.emplace_back([&, seed = static_cast<unsigned>(threads.size())] {
            bool all_good = true;
            std::mt19937 random(seed);
            for (int turn = 0; turn < 4000; ++turn)
                all_good = turns.HitOne(random) && all_good;
            turns.LetAllGo();
            good += all_good ? 1 : 0;
            --left;
        });
    while (left > 0)
        meanwhile();
    threads.clear();
    EXPECT_EQ(good, static_cast<int>(all.size()));
}

/// Those of a thread's blocks that stand in the queue, in its order.
std::deque<int> QueueOf(MEM_MemPager& pager, const Turns& turns)
{
    std::deque<int> mine;
    for (const int id : Mem_TestAccess::QueueOrder(pager))
        if (std::ranges::count(turns.order, id) != 0)
            mine.push_back(id);
    return mine;
}

TEST(Hits, LeaveTheOrderOfEachThreadAsItIs)
{
    TestConfiguration::Scope configuration;
    TestConfiguration::cache_limit = 1ull << 30;
    Memory_ShmmHeap heap;
    const auto pager = Mem_TestAccess::MakePager(&heap);
    Turns all[4];
    HitInTurns(*pager, all, [&] {
        Mem_Status status;
        pager->GetCurrentStatus(status);
        EXPECT_LE(status.total_cached, status.total_mapped);
        EXPECT_EQ(status.total_mapped, 20u * 65536);
        EXPECT_EQ(Mem_TestAccess::Broken(*pager), nullptr);
    });
    for (const Turns& turns : all)
        EXPECT_EQ(QueueOf(*pager, turns), turns.order);
}

TEST(Hits, StandWhereTheyWereLetGoThoughGatheredLater)
{
    TestConfiguration::Scope configuration;
    TestConfiguration::cache_limit = 1ull << 30;
    Memory_ShmmHeap heap;
    const auto pager = Mem_TestAccess::MakePager(&heap);
    MEM_PagerInfo pieces[3];
    for (MEM_PagerInfo& piece : pieces) {
        ASSERT_EQ(pager->Allocate(65536, &piece, 0), 0);
        piece.Unmap();
    }
    ASSERT_EQ(Mem_TestAccess::QueueOrder(*pager), (std::vector{0, 1, 2}));
    const Mem_BlockTable& blocks = Mem_TestAccess::Blocks(*pager);
    const std::uint64_t between = blocks.At(1).stamp - 1; // as if it had been let go before 1 and 2
    pieces[0].Map();
    pieces[0].Unmap();
    blocks.At(0).stamp = between;
    EXPECT_EQ(Mem_TestAccess::QueueOrder(*pager), (std::vector{0, 1, 2}));
}

TEST(Hits, LoseNoViewToWhoTakesThem)
{
    TestConfiguration::Scope configuration;
    TestConfiguration::cache_limit = 12 * 65536;
    Memory_ShmmHeap heap;
    const auto pager = Mem_TestAccess::MakePager(&heap);
    Turns all[4];
    unsigned turn = 0;
    HitInTurns(*pager, all, [&] {
        if (++turn % 8 == 0)
            pager->ClearCache();
        EXPECT_TRUE(OwnPiece(turn % 2 == 0 ? 50000 : 100, pager.get()));
        EXPECT_EQ(Mem_TestAccess::Broken(*pager), nullptr);
    });
    for (const Turns& turns : all) {
        std::deque<int> left = turns.order;
        const std::deque<int> queue = QueueOf(*pager, turns);
        std::erase_if(left, [&](int id) { return std::ranges::count(queue, id) == 0; });
        EXPECT_EQ(queue, left);
    }
}

TEST(Hits, AreStampedInTheOrderOfTimeAcrossThreads)
{
    std::uint64_t last = 0;
    for (int turn = 0; turn < 6; ++turn) {
        std::jthread([&last] {
            for (int i = 0; i < 1000; ++i) {
                const std::uint64_t stamp = Mem_NextStamp();
                ASSERT_GT(stamp, last) << i;
                last = stamp;
            }
        }).join();
        std::this_thread::sleep_for(std::chrono::milliseconds(20)); // a tick of the coarse clock
        const std::uint64_t mine = Mem_NextStamp();
        ASSERT_GT(mine, last);
        last = mine;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}
} // namespace
