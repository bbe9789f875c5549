// Hunts pages that are told ready and aren't, and bytes that change by being made ready.

#include "Mem/Mem_MemPager.h"
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

TEST_F(Prefetched, PiecesUpToTheSetSizeAreReadyWhole)
{
    for (const unsigned size : {kSize - 1, kSize}) {
        prefetch_of_this_run = size;
        ASSERT_EQ(piece.Map(), 0);
        EXPECT_EQ(Ready(piece.Ptr(), kSize), size == kSize ? kSize / kPage : 0);
        piece.Unmap();
    }
}

} // namespace
