// Hunts pages that are told ready and aren't, bytes that change by being made ready, stretches
// outside of a piece, and a scan that asks for its bytes twice or not at all.

#include "Mem/Mem_MemFragmentsAllocator.h"
#include "Mem/Mem_MemPager.h"
#include "mempager/piece.h"
#include "support/FailingPlatform.h"
#include "support/PagerWorld.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

namespace
{
constexpr unsigned kPage = 4096;
constexpr unsigned kSize = 256 * kPage;

/// How many pages of a stretch this process has at hand.
std::ptrdiff_t Ready(const void* begin, std::size_t size)
{
    std::vector<std::uint64_t> pages(size / kPage);
    const int table = open("/proc/self/pagemap", O_RDONLY | O_CLOEXEC);
    const auto first = reinterpret_cast<std::uintptr_t>(begin) / kPage;
    const auto length = static_cast<ssize_t>(8 * pages.size());
    EXPECT_EQ(pread(table, pages.data(), 8 * pages.size(), static_cast<off_t>(8 * first)), length);
    close(table);
    return std::ranges::count_if(pages, [](std::uint64_t page) { return page >> 63 == 1; });
}

struct Prefetched : testing::Test {
    Prefetched()
    {
        TestConfiguration::cache_limit = 0;
        prefetch_of_this_run = 0;
        EXPECT_EQ(pager.Allocate(kSize, &piece, kPage), 0);
        std::memset(piece.Ptr(), 7, kSize);
        piece.Unmap();
    }
    TestConfiguration::Scope configuration;
    MEM_MemPager& pager = *MEM_MemPager::GetHandle();
    MEM_PagerInfo piece;
};

TEST_F(Prefetched, PagesAreThoseThatWereAskedFor)
{
    ASSERT_EQ(piece.Map(), 0);
    const char* const bytes = static_cast<char*>(piece.Ptr());
    EXPECT_EQ(Ready(bytes, kSize), 0);
    EXPECT_EQ(piece.Prefetch(0, kSize, MEM_TO_READ), 0);
    EXPECT_EQ(piece.Prefetch(kSize / 2 + 5, 10, MEM_TO_WRITE), 0);
    EXPECT_EQ(Ready(bytes + kSize / 2, kPage), 1);
    EXPECT_EQ(piece.Prefetch(0, kSize, MEM_TO_WRITE), 0);
    EXPECT_EQ(Ready(bytes, kSize), kSize / kPage);
    EXPECT_EQ(std::count(bytes, bytes + kSize, 7), kSize);
}

TEST_F(Prefetched, NothingLiesOutsideOfAMappedPiece)
{
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

TEST_F(Prefetched, PiecesUpToTheSetSizeAreReadyWhole)
{
    for (const unsigned size : {kSize - 1, kSize}) {
        prefetch_of_this_run = size;
        ASSERT_EQ(piece.Map(), 0);
        EXPECT_EQ(Ready(piece.Ptr(), kSize), size == kSize ? kSize / kPage : 0);
        piece.Unmap();
    }
}

/// Adds up what is asked for.
struct Counting : ForwardingMappings {
    bool Prefetch(void* bytes, std::uint64_t size, Access access) override
    {
        asked += size;
        return m_real.Prefetch(bytes, size, access);
    }
    std::uint64_t Asked() { return std::exchange(asked, 0); }
    std::uint64_t asked = 0;
};

TEST_F(Prefetched, AScanAsksOnceForEachByte)
{
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
