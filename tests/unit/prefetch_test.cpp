// Hunts stretches outside of a piece, and a scan that asks for its bytes twice or not at all.

#include "Mem/Mem_MemFragmentsAllocator.h"
#include "Mem/Mem_MemPager.h"
#include "mempager/piece.h"
#include "support/FailingPlatform.h"
#include "support/PagerWorld.h"

#include <gtest/gtest.h>

#include <utility>

namespace
{
constexpr unsigned kSize = 1 << 20;

/// A system that makes all ready that it is asked for, and adds it up.
struct Counting : ForwardingMappings {
    bool Prefetch(void*, std::uint64_t size, Access) override
    {
        asked += size;
        return true;
    }
    std::uint64_t Asked() { return std::exchange(asked, 0); }
    std::uint64_t asked = 0;
};

TEST(Prefetch, EndsWithAMappedPiece)
{
    const TestConfiguration::Scope configuration;
    Counting counting;
    MEM_PagerInfo piece;
    ASSERT_EQ(MEM_MemPager::GetHandle()->Allocate(kSize, &piece, 0), 0);
    EXPECT_EQ(piece.Prefetch(kSize - 1, 1, MEM_TO_READ), 0);
    piece.Unmap();
    EXPECT_EQ(piece.Prefetch(0, 1, MEM_TO_READ), -1);
    ASSERT_EQ(piece.Map(), 0);
    EXPECT_EQ(piece.Prefetch(kSize, 0, MEM_TO_READ), 0);
    EXPECT_EQ(piece.Prefetch(kSize, 1, MEM_TO_READ), -1);
    EXPECT_EQ(piece.Prefetch(8, ~0ull - 4, MEM_TO_WRITE), -1);
    EXPECT_EQ(MEM_PagerInfo().Prefetch(0, 0, MEM_TO_READ), -1);

    mempager::piece<int> numbers(1000);
    EXPECT_FALSE(numbers.prefetch(0, 1000));
    const auto mapped = numbers.map();
    EXPECT_TRUE(numbers.prefetch(999, 1));
    EXPECT_FALSE(numbers.prefetch_const(999, 2));
}

TEST(Prefetch, IsAskedForOnceForEachByteOfAScan)
{
    const TestConfiguration::Scope configuration;
    TestConfiguration::cache_limit = 0;
    constexpr std::size_t all = 5 * 65536;
    Mem_MemFragmentsAllocator buffer(1, all, 65536);
    const auto scan = [&](bool backwards) {
        for (std::size_t at = 0; at < all; at += 1024) {
            std::size_t length = 3000; // the next overlaps
            ASSERT_NE(buffer.GetRangeFromIndex(backwards ? all - 1024 - at : at, length), nullptr);
        }
    };
    Counting counting;
    scan(false);
    EXPECT_EQ(counting.Asked(), all);
    scan(true); // from the two that are mapped still
    EXPECT_EQ(counting.Asked(), all - 2 * 65536);
    TestConfiguration::cache_limit = 1 << 20;
    scan(false);
    counting.Asked();
    scan(true); // of views that have waited
    EXPECT_EQ(counting.Asked(), 0u);
}
} // namespace
