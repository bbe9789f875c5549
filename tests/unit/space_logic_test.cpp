// Hunts: a fit, tie, gap or merge that differs from two sorted vectors searched from the start;
// sums that wrap at 32 bits; requests of 0 bytes that hide a neighbour; a failed allocation or
// free that leaves a trace; a free that allocates.
#include "Mem/Mem_BlockSpaceLogic.h"
#include "Rw/RWBoundsErr.h"
#include "support/FailingNew.h"
#include "support/Mem_TestAccess.h"

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
        allocated.insert({*aligned, {wanted, offset, *actual}});
        if (size > *actual)
            free.insert({size - *actual, offset + *actual});
        return true;
    }
    u64 TakeOut(auto which)
    {
        const auto found = std::ranges::find_if(free, which);
        return found == free.end() ? 0 : free.extract(found).key();
    }
    bool Free(u64 at)
    {
        const auto a = allocated.lower_bound(at);
        if (a == allocated.end() || a->first != at)
            return false;
        const u64 begin = a->second[1], end = begin + a->second[2];
        allocated.erase(a);
        const u64 right = TakeOut([=](auto& f) { return f.second == end; });
        const u64 left = TakeOut([=](auto& f) { return f.second + f.first == begin; });
        free.insert({left + (end - begin) + right, begin - left});
        return true;
    }
    u64 region;
    std::multimap<u64, u64> free{{region, 0}};          // offset by size
    std::multimap<u64, std::array<u64, 3>> allocated{}; // size, offset, actual by aligned offset
};

void Compare(const BlockSpaceLogic& real, const Model& model)
{
    u64 sum = 0, n = 0;
    std::ostringstream print, want;
    for (auto& [size, offset] : model.free)
        want << "\tFree Chunk " << ++n << ", Size " << size << ", Offset " << offset << "\n";
    for (auto& [at, c] : model.allocated) {
        want << "\tAllocated Chunk " << ++n << ", Size " << c[0] << ", Offset " << c[1] << "\n";
        sum += c[2];
    }
    real.PrintStatus(print);
    const auto kb = [](u64 bytes) { return std::to_string(bytes / 1024) + "KB"; };
    ASSERT_EQ(print.str(), "  Block space Status: size : " + kb(model.region) +
                               ", allocated: " + kb(sum) + "\n" + want.str() + "\n\n");
    u32 size, allocated;
    real.GetStatus(&size, &allocated);
    ASSERT_TRUE(size == model.region && allocated == sum && real.IsUsed() == (sum != 0));
    ASSERT_EQ(real.LargestFreeChunk(), model.free.empty() ? 0 : model.free.rbegin()->first);
}

void Allocate(BlockSpaceLogic& real, Model& model, u32 size, u32 to)
{
    Mem_MemoryChunk chunk;
    u32 actual = 0, could_actual = 0;
    const bool could = real.CanAllocate(size, to, &could_actual);
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
    ASSERT_EQ(could, done && size > 0 && size <= 1u << 30) << size << " " << to;
    ASSERT_TRUE(!done || (chunk.m_Size == size && chunk.m_Offset == at && actual == want));
    ASSERT_TRUE(!could || could_actual == want);
}

void Free(BlockSpaceLogic& real, Model& model, u64 offset)
{
    const u64 before = AllocationsOfThisThread();
    bool freed = false;
    try {
        freed = real.Free(Mem_MemoryChunk(4711, static_cast<u32>(offset))); // the size is no matter
    } catch (const RWBoundsErr&) {
    }
    ASSERT_EQ(AllocationsOfThisThread(), before);
    ASSERT_EQ(freed, model.Free(offset));
}

TEST(SpaceLogic, LivesLikeTwoSortedVectors)
{
    std::mt19937 random(1);
    const auto below = [&](u64 end) { return static_cast<u32>(random() % end); };
    const u32 alignments[] = {0, 0, 1, 7, 64, 64, 100, 4096, 1u << 31, UINT32_MAX};
    for (const u32 region : {0u, 1u, 5u, 40u, 1000u, 1u << 16, 8u << 20, 3u << 30, UINT32_MAX})
        for (u32 life = 0; life < 40; ++life) {
            const u32 sizes[] = {life % 2, 1, 1u << 30, (1u << 30) + 1, UINT32_MAX, region};
            BlockSpaceLogic real(region);
            Model model{region};
            std::size_t most = 0; // chunks at once
            for (u32 step = 0; step < 300 || !model.allocated.empty(); ++step) {
                const auto& given = model.allocated;
                const u32 usual = 1 + below(region / (2u << below(8)) + 1), to = below(10);
                if (below(100) < (step >= 300 ? 0 : step % 100 < 50 ? 75 : 35))
                    Allocate(real, model, below(5) ? usual : sizes[below(6)], alignments[to]);
                else if (given.empty() || below(8) == 0)
                    Free(real, model, below(u64{region} + 1));
                else
                    Free(real, model, std::next(given.begin(), below(given.size()))->first);
                most = std::max(most, model.free.size() + given.size());
                ASSERT_LE(Mem_TestAccess::Records(real), most + 1);
                Compare(real, model);
                ASSERT_FALSE(HasFatalFailure()) << region << " " << life << " " << step;
            }
        }
}
} // namespace
