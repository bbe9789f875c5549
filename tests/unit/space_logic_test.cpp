// Hunts: a fit, tie, gap or merge that differs from two sorted vectors searched from the start;
// sums that wrap at 32 bits; a failed allocation that leaves a trace; a heap's choice of a block.
#include "Mem/Mem_BlockSpaceLogic.h"
#include "Rw/RWBoundsErr.h"
#include "support/FailingNew.h"
#include "support/Mem_TestAccess.h"
#include "support/PagerWorld.h"
#include "support/Seeds.h"

#include <algorithm>
#include <array>
#include <gtest/gtest.h>
#include <map>
#include <new>
#include <random>
#include <sstream>

namespace
{
using u32 = std::uint32_t;
using u64 = std::uint64_t;

// The policy with nothing clever in it; 64-bit numbers can't wrap. A multimap is a sorted vector
// here: equals stand in the order in which they came.
struct Model {
    static u64 Gap(u64 offset, u64 to) { return to ? (offset + to - 1) / to * to - offset : 0; }
    bool Allocate(u64 wanted, u64 to, u64* aligned, u64* actual)
    {
        auto f = free.lower_bound(wanted);
        if (f != free.end() && wanted + Gap(f->second, to) > f->first)
            f = free.lower_bound(wanted + to);
        if (f == free.end())
            return false;
        const auto [size, offset] = *f;
        *aligned = offset + Gap(offset, to);
        *actual = wanted + Gap(offset, to);
        free.erase(f);
        allocated.insert({*aligned, {wanted, offset, *actual, nullptr}});
        sum += *actual;
        if (size > *actual)
            free.insert({size - *actual, offset + *actual});
        return true;
    }
    u64 TakeOut(auto which)
    {
        const auto found = std::ranges::find_if(free, which);
        return found == free.end() ? 0 : free.extract(found).key();
    }
    void Free(u64 at)
    {
        const auto chunk = allocated.extract(allocated.lower_bound(at)).mapped();
        const u64 begin = chunk.begin, actual = chunk.actual, end = begin + actual;
        const u64 right = TakeOut([=](auto& f) { return f.second == end; });
        const u64 left = TakeOut([=](auto& f) { return f.second + f.first == begin; });
        free.insert({left + actual + right, begin - left});
        sum -= actual;
    }
    struct Given {
        u64 size, begin, actual;
        Mem_Chunk* record;
    };
    std::multimap<u64, u64> free;          // offset by size
    std::multimap<u64, Given> allocated{}; // by aligned offset
    u64 sum = 0;
    u32 lower = 0, upper = 1u << 30;
};

void Compare(const BlockSpaceLogic& real, const Model& model)
{
    std::ostringstream print, want;
    int count = 0;
    for (const auto& [size, offset] : model.free)
        want << "\tFree Chunk " << ++count << ", Size " << size << ", Offset " << offset << '\n';
    for (const auto& [at, chunk] : model.allocated)
        want << "\tAllocated Chunk " << ++count << ", Size " << chunk.size << ", Offset "
             << chunk.begin << '\n';
    real.PrintStatus(print);
    const std::string lines = print.str().substr(print.str().find('\n') + 1);
    ASSERT_EQ(lines, want.str() + "\n\n");
    u32 size, allocated;
    real.GetStatus(&size, &allocated);
    ASSERT_EQ(allocated, model.sum);
    ASSERT_EQ(real.IsUsed(), allocated != 0);
    ASSERT_EQ(real.LargestFreeChunk(), model.free.empty() ? 0 : model.free.rbegin()->first);
}

void Allocate(BlockSpaceLogic& real, Model& model, u32 size, u32 to)
{
    Mem_MemoryChunk chunk;
    u32 actual = 0;
    const bool could = real.CanAllocate(size, to, &actual);
    bool done = false;
    try {
        FailingNew failing(1, UINT64_MAX);
        done = real.Allocate(size, &chunk, to, &actual);
    } catch (const std::bad_alloc&) {
        ASSERT_NO_FATAL_FAILURE(Compare(real, model));
        done = real.Allocate(size, &chunk, to, &actual);
    }
    u64 at = 0, want = 0;
    ASSERT_EQ(done, model.Allocate(size, to, &at, &want)) << size << " " << to;
    const bool is_admitted = done && size > model.lower && size <= model.upper;
    ASSERT_EQ(could, is_admitted) << size << " " << to;
    const auto got = std::tuple<u64, u64, u64>(chunk.m_Size, chunk.m_Offset, actual);
    if (done) {
        ASSERT_EQ(got, std::tuple(u64{size}, at, want));
        std::prev(model.allocated.upper_bound(at))->second.record = chunk.m_record;
    }
}

TEST(SpaceLogic, LivesLikeTwoSortedVectors)
{
    const u32 alignments[] = {0, 0, 1, 7, 64, 64, 100, 4096, 1u << 31, UINT32_MAX};
    const u32 regions[] = {1, 5, 40, 1000, 1u << 16, 8u << 20, 3u << 30, UINT32_MAX};
    ForEachSeed(160, 300, [&](unsigned seed) {
        std::mt19937 random(seed);
        const auto below = [&](u64 end) { return static_cast<u32>(random() % end); };
        const u32 region = regions[seed % 8], many = seed / 16 % 2;
        const u32 sizes[] = {0, 1u << 30, (1u << 30) + 1, UINT32_MAX, region};
        BlockSpaceLogic real(region);
        Model model{{{region, 0}}};
        Mem_Chunk* stale = nullptr;
        if (seed / 8 % 2 == 1)
            real.SetLimits(model.lower = region / 64, model.upper = region / 8);
        for (u32 step = 0; step < 300 || !model.allocated.empty(); ++step) {
            const auto& given = model.allocated;
            const u32 usual = 1 + below(region / (2u << (below(8) + 6 * many)) + 1), to = below(10);
            if (below(100) < (step >= 300 ? 0 : step % 100 < 50 ? 75 + 20 * many : 35 + 20 * many))
                Allocate(real, model, below(5) ? usual : sizes[below(5)], alignments[to]);
            else if (!given.empty()) {
                const u64 at = std::next(given.begin(), below(given.size()))->first;
                Mem_Chunk* const own = given.lower_bound(at)->second.record;
                Mem_Chunk* const told = std::array{own, stale, own, own}[below(4)];
                ASSERT_TRUE(real.Free({4711, static_cast<u32>(at), told}));
                model.Free(at);
                stale = below(2) ? own : nullptr;
            }
            Compare(real, model);
            ASSERT_FALSE(HasFatalFailure()) << region << " " << step;
        }
        ASSERT_THROW(real.Free({1, 0, stale}), RWBoundsErr);
    });
}

// A heap of nothing but numbers.
struct NumberBlock : Block {
    explicit NumberBlock(u32 size, ShmmHeap* heap = nullptr) : Block(nullptr, heap, size) {}
    int create_info(BaseInfo** result, u32, Block* block) override
    {
        *result = new BaseInfo(block, 0, 0);
        return 0;
    }
};
struct Request {
    u32 size, to, always_mapped, group;
    const void* client;
};
struct NumberHeap : ShmmHeap {
    int create_result_element(u32, Block**) override { return -1; }
    int create_result_element(u32 size, Block** result, u32, u32) override
    {
        *result = new NumberBlock(std::max(size, 1000u), this);
        return 0;
    }
    int destroy_element(Block*) override { return 0; }

    // The newest block that takes the request, by a walk over all of them.
    Block* Newest(const Request& now)
    {
        u32 actual;
        for (Block& block : m_blocks)
            if (block.Client() == now.client &&
                block.CanAllocate(now.size, now.always_mapped, now.group, now.to, &actual) == 0)
                return &block;
        return nullptr;
    }
    std::string State()
    {
        std::ostringstream state;
        PrintStatus(state);
        return state.str() + std::to_string(Mem_TestAccess::Kinds(*this));
    }
    // Each allocation on the way fails once.
    BaseInfo* Take(const Request& now)
    {
        const std::string before = State();
        for (u32 n = 1;; ++n) {
            Block* const newest = Newest(now);
            BaseInfo* info = nullptr;
            try {
                const FailingNew failing(n);
                AllocateFor(now.client, now.size, now.to, &info, now.always_mapped, now.group);
            } catch (const std::bad_alloc&) {
                EXPECT_EQ(State(), before);
                continue;
            }
            EXPECT_EQ(info->OwnerBlock(), newest ? newest : &m_blocks.front());
            return info;
        }
    }
};

TEST(Heap, ItsBlocksTakeSizesWithinBothLimitsButNotNothing)
{
    NumberBlock block(1000);
    block.SetChunkSizeRange(0, 20);
    EXPECT_EQ(block.CanAllocate(0), -1);
    EXPECT_EQ(block.CanAllocate(1), 0);
    block.SetChunkSizeRange(10, 20);
    for (u32 size = 1; size < 30; ++size)
        EXPECT_EQ(block.CanAllocate(size), std::clamp(size, 10u, 20u) == size ? 0 : -1) << size;
}

TEST(Heap, ChoosesTheBlockThatAWalkOverAllOfThemWould)
{
    const TestConfiguration::Scope configuration;
    u32& threshold = TestConfiguration::block_size_threshold;
    constexpr u32 pieces_at_a_time[] = {2, 30, 300};
    ForEachSeed(3, 3000, [&](unsigned seed) {
        std::mt19937 random(seed);
        const auto below = [&](u64 end) { return static_cast<u32>(random() % end); };
        const u32 usual = pieces_at_a_time[seed % 3];
        NumberHeap heap;
        std::vector<BaseInfo*> given;
        TestConfiguration::threshold_drift = usual == 30 ? 1 : 0;
        for (u32 step = 0; step < 3000 || !given.empty(); ++step) {
            if (step % 50 == 0)
                threshold = std::array{2u, 64u, 100u, 400u}[below(4)];
            if (step % 999 == 998)
                heap.RetireBlocks();
            if (step < 3000 && below(2 * usual) >= given.size()) {
                const u32 size = below(2) ? threshold - 1 + below(3) : 1 + below(1200);
                const void* const client = below(2) ? &heap : nullptr;
                given.push_back(heap.Take({size, 100 * below(4), below(2), below(2), client}));
            } else if (!given.empty()) {
                heap.Free(std::exchange(given[below(given.size())], given.back()));
                given.pop_back();
            }
            ASSERT_FALSE(HasFailure()) << usual << " " << step;
        }
        EXPECT_EQ(Mem_TestAccess::Kinds(heap), 0u);
    });
}
} // namespace
