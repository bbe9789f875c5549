// Hunts: an order, hole, lap or capacity that differs from the ring's rules; an index that drifts
// from the ring; an allocation where room was set aside; a queue that a new-handler finds
// half-changed, or that std::bad_alloc leaves so; dead ids that keep their memory.
#include "support/FailingNew.h"
#include "support/Mem_TestAccess.h"
#include "support/Seeds.h"

#include <algorithm>
#include <deque>
#include <gtest/gtest.h>
#include <new>
#include <random>

namespace
{
using Access = Mem_TestAccess;

// The order as a list, holes (-1) too, and of the ring the reading end and the size.
struct Model {
    bool Remove(int id)
    {
        const auto found = std::ranges::find(stretch, id);
        return found != stretch.end() && (*found = -1) == -1;
    }
    void Release(int id) { Remove(id); }
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
    int Youngest()
    {
        while (!stretch.empty() && stretch.back() == -1)
            stretch.pop_back();
        return stretch.empty() ? -1 : stretch.back();
    }
    void Clear() { *this = {{}, 0, capacity}; }

    std::deque<int> stretch{};
    std::size_t read = 0, capacity = 1024;
};

int Act(auto& queue, unsigned long kind, int id)
{
    if (kind < 300)
        return kind < 2 ? queue.Clear(), 0 : queue.Pop();
    if (kind < 400)
        return queue.Release(id), 0;
    if (kind < 500)
        return queue.Youngest();
    return kind < 1000 ? queue.Remove(id) : (queue.Push(id), 0);
}

MEM_FifoQueue* g_queue;
void Clear()
{
    g_queue->Clear();
}

bool MeetsAFailure(MEM_FifoQueue& queue, int id, unsigned n, bool pushes)
{
    const FailingNew failing(n);
    try {
        pushes ? queue.Push(id) : queue.Reserve(id); // a second Push() does nothing
    } catch (const std::bad_alloc&) {
    }
    return failing.Fired();
}

// Ids in turn for a while, which meets each capacity at its first id too many, then at random.
TEST(Queue, LivesLikeAListAndAllocatesNothingForReservedIds)
{
    static constexpr unsigned all_ids[] = {1, 3, 682, 683, 1024, 1536, 6000};
    ForEachSeed(14, 12000, [](unsigned seed) {
        std::mt19937 random(seed);
        const unsigned ids = all_ids[seed % 7];
        const std::new_handler handler = seed <= 7 ? Clear : nullptr;
        MEM_FifoQueue queue;
        Model model;
        g_queue = &queue;
        std::set_new_handler(handler);
        for (unsigned step = 0; step < 12000; ++step) {
            const unsigned long kind = step < 7000 ? 9999 : random() % 5000;
            const int id = static_cast<int>((step < 7000 ? step : random()) % ids);
            if (MeetsAFailure(queue, id, 1 + step % 2, kind >= 2000) && handler)
                model.Clear();
            queue.Reserve(id);
            const auto before = AllocationsOfThisThread();
            const int result = Act(queue, kind, id);
            ASSERT_EQ(AllocationsOfThisThread(), before) << step;
            ASSERT_EQ(result, Act(model, kind, id)) << step;
            const std::size_t all = model.stretch.size();
            ASSERT_EQ(Access::WritePosition(queue), (model.read + all) % model.capacity);
            ASSERT_EQ(Access::Ring(queue).size(), model.capacity) << step;
            if (step % 16 != 0 && all > 99)
                continue;
            const auto holes = static_cast<std::size_t>(std::ranges::count(model.stretch, -1));
            ASSERT_TRUE(queue.Validate()) << step;
            ASSERT_EQ(queue.IsEmpty(), all == holes) << step;
            ASSERT_EQ(Access::LiveCount(queue), all - holes) << step;
        }
    });
    std::set_new_handler(nullptr);
}

TEST(Queue, MillionsOfDeadIdsTakeNoMemory)
{
    MEM_FifoQueue queue;
    for (int id = 0; id < 2'000'000; ++id) {
        queue.Push(id);
        if (id > 1) // id 0 lives on
            queue.Release(id - 1);
    }
    EXPECT_EQ(Access::Segments(queue), 2);
    EXPECT_EQ(Access::Ring(queue).capacity(), 1024u);
}
} // namespace
