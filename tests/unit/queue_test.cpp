// Hunts: an order, hole, lap or capacity that differs from the ring's rules; an index that drifts
// from the ring; an allocation where room was set aside; a queue or table that a new-handler finds
// half-changed, or that std::bad_alloc leaves so; dead ids that keep their memory.
#include "Rw/RWBoundsErr.h"
#include "support/FailingNew.h"
#include "support/Mem_TestAccess.h"
#include "support/PagerWorld.h"

#include <algorithm>
#include <climits>
#include <deque>
#include <gtest/gtest.h>
#include <new>
#include <random>
#include <stdexcept>

namespace
{
// The order as a list, holes (-1) too, and of the ring the reading end and the size.
struct Model {
    bool Remove(int id)
    {
        const auto found = std::ranges::find(stretch, id);
        return found != stretch.end() && (*found = -1) == -1;
    }
    void Push(int id)
    {
        if (!stretch.empty() && stretch.back() == id)
            return;
        Remove(id);
        stretch.push_back(id);
        if (stretch.size() < capacity)
            return;
        std::erase(stretch, -1);
        capacity += 3 * stretch.size() > 2 * capacity ? capacity / 2 : 0;
        read = 0;
    }
    int Pop()
    {
        int id = -1;
        for (; id == -1 && !stretch.empty(); stretch.pop_front(), read = (read + 1) % capacity)
            id = stretch.front();
        return id;
    }
    void Clear() { *this = {{}, 0, capacity}; }

    std::deque<int> stretch{};
    std::size_t read = 0, capacity = 1024;
};

int Act(auto& queue, unsigned long kind, int id)
{
    if (kind < 2)
        return queue.Clear(), 0;
    if (kind < 300)
        return queue.Pop();
    if (kind < 1000)
        return queue.Remove(id);
    return queue.Push(id), 0;
}

// Ids in turn for a while, which meets each capacity at its first id too many, then at random.
TEST(Queue, LivesLikeAListAndAllocatesNothingForReservedIds)
{
    std::mt19937 random(1);
    for (const unsigned ids : {1u, 3u, 682u, 683u, 1024u, 1536u, 6000u}) {
        MEM_FifoQueue queue;
        Model model;
        for (unsigned step = 0; step < 12000; ++step) {
            const unsigned long kind = step < 7000 ? 9999 : random() % 5000;
            const int id = static_cast<int>((step < 7000 ? step : random()) % ids);
            queue.Reserve(id);
            const auto before = AllocationsOfThisThread();
            const int result = Act(queue, kind, id);
            ASSERT_EQ(AllocationsOfThisThread(), before) << step;
            ASSERT_EQ(result, Act(model, kind, id)) << step;
            const std::size_t all = model.stretch.size();
            ASSERT_EQ(Mem_TestAccess::ReadPosition(queue), model.read) << step;
            ASSERT_EQ(Mem_TestAccess::WritePosition(queue), (model.read + all) % model.capacity);
            ASSERT_EQ(Mem_TestAccess::Ring(queue).size(), model.capacity) << step;
            if (step % 16 != 0 && all > 99)
                continue;
            const auto holes = static_cast<std::size_t>(std::ranges::count(model.stretch, -1));
            ASSERT_TRUE(queue.Validate() && queue.IsEmpty() == (all == holes)) << step;
            ASSERT_EQ(Mem_TestAccess::LiveCount(queue), all - holes) << step;
        }
    }
}

MEM_FifoQueue* g_queue;
Mem_BlockTable* g_table;
unsigned g_calls, g_met;

// As the pager's does: empties the queue and walks the table.
void Handler()
{
    ++g_calls;
    g_queue->Clear();
    g_table->ForEach([](int, RegisteredBlock&) { ++g_met; });
}

TEST(Queue, IsWholeInEachAllocationAndAfterAFailedOne)
{
    bool fired = true;
    std::uint64_t n = 0;
    while (++n, fired)
        for (const std::new_handler handler : {std::new_handler(Handler), std::new_handler()}) {
            MEM_FifoQueue queue;
            Mem_BlockTable table;
            RegisteredBlock block(nullptr);
            for (int id = 0; id < 1024; ++id, table.Append(&block))
                table.ReserveNext();
            for (int id = 0; id < 455; ++id) // with one more, the ring's room has to grow
                queue.Push(id);
            g_queue = &queue, g_table = &table, g_calls = g_met = 0;
            bool thrown = false;
            std::set_new_handler(handler);
            try {
                FailingNew failing(n);
                table.ReserveNext();
                queue.Push(99999);
                fired = failing.Fired();
            } catch (const std::bad_alloc&) {
                thrown = true;
            }
            std::set_new_handler(nullptr);
            ASSERT_EQ(thrown, fired && handler == nullptr);
            ASSERT_TRUE(g_calls == (fired && handler) && g_met == 1024 * g_calls) << n;
            ASSERT_TRUE(queue.Validate() && queue.Contains(99999) == !thrown) << n;
            ASSERT_EQ(Mem_TestAccess::LiveCount(queue), (g_calls ? 0u : 455u) + !thrown) << n;
            table.ReserveNext();
            table.Append(&block);
            ASSERT_EQ(&table.At(1024), &block);
        }
    ASSERT_GT(n, 5u) << "two segments, two directories and the ring";
}

TEST(Queue, MillionsOfDeadIdsTakeNoMemory)
{
    MEM_FifoQueue queue;
    Mem_BlockTable table;
    RegisteredBlock block(nullptr);
    for (int id = 0; id < 2'000'000; ++id) {
        table.ReserveNext();
        table.Append(&block);
        queue.Push(id);
        if (id < 2)
            continue; // block 0 lives on
        table.Erase(id - 1);
        queue.Release(id - 1);
    }
    EXPECT_TRUE(Mem_TestAccess::Segments(table) == 2 && Mem_TestAccess::Segments(queue) == 2);
    EXPECT_EQ(Mem_TestAccess::Ring(queue).capacity(), 1024u);
    EXPECT_EQ(&table.At(0), &block);
    for (const int id : {-1, 1, 1'999'998, 2'000'000, INT_MAX, INT_MIN})
        EXPECT_THROW(table.At(id), RWBoundsErr) << id;
    Mem_TestAccess::Length(table) = INT_MAX;
    EXPECT_THROW(table.ReserveNext(), std::length_error);
    table.Clear();
    EXPECT_TRUE(table.Length() == 0 && table.Find(0) == nullptr);
}

TEST(Queue, FindsItsOwnFaults)
{
    LogCapture log(7);
    MEM_FifoQueue queue;
    queue.Push(3);
    queue.Push(4);
    Mem_TestAccess::Ring(queue)[0] = 5;
    EXPECT_TRUE(!queue.Validate() && log.Size() == 0);
    Mem_TestAccess::Ring(queue)[0] = 4;
    EXPECT_FALSE(queue.Validate());
    EXPECT_EQ(log.Count(7, "MEM_FifoQueue::Validate|map points to wrong location\n"), 1);
    Mem_TestAccess::WritePosition(queue) = 1024;
    EXPECT_THROW(queue.Push(1), RWBoundsErr);
}
} // namespace
