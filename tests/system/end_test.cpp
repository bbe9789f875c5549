// The end of a process that others of its threads don't know of: hunts a pager that ends under a
// thread which is inside, an exception that leaves such a thread, and use after the end.

#include "Mem/Mem_MemPager.h"
#include "support/Child.h"
#include "support/PagerWorld.h"
#include "support/Seeds.h"
#include "support/ThisProcess.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <random>
#include <thread>

namespace
{
/// Uses both pagers until its process is gone.
[[noreturn]] void LiveFor(unsigned seed)
{
    std::mt19937 random(seed);
    MEM_PagerInfo kept[8];
    for (;;) {
        const std::size_t place = random() % 8;
        MEM_PagerInfo& info = kept[place];
        MEM_MemPager* const pager =
            place < 4 ? MEM_MemPager::GetHandle() : MEM_MemPager::GetHandleForMP();
        if (random() % 3 == 0)
            pager->Allocate(static_cast<unsigned>(1 + random() % 70000), &info, 0);
        if (info.Map() == 0)
            std::memset(info.Ptr(), 1, 1);
        const MEM_PagerInfo copy(info);
        info.Unmap();
        if (random() % 50 == 0)
            pager->ClearCache();
        if (random() % 20 == 0) {
            pager->Free(info);
            info.Release();
        }
    }
}

/// At the end pieces are left alone, which a sanitizer takes for leaks.
#define SKIP_UNDER_A_SANITIZER()                                                                   \
    if (is_sanitized)                                                                              \
    GTEST_SKIP() << "a sanitizer looks for leaks where a process ends"

CHILD_ROLE(EndsWithThreadsInside)
{
    const auto seed = static_cast<unsigned>(std::stoul(argument));
    TestConfiguration::cache_limit = 3 * 65536;
    MEM_MemoryConfiguration::GetInstance()->SetInstance(new TestConfiguration);
    ZorGLog.SetLogLevel(2);
    for (unsigned thread = 0; thread < 4; ++thread)
        std::thread(LiveFor, 4 * seed + thread).detach();
    std::this_thread::sleep_for(std::chrono::microseconds(300 * seed));
    std::exit(0);
}

TEST(End, OfAProcessLeavesThreadsInsideInPeace)
{
    SKIP_UNDER_A_SANITIZER();
    ForEachSeed(60, 1, [](unsigned seed) {
        EXPECT_EQ(Child("EndsWithThreadsInside", std::to_string(seed)).End(), 0);
    });
}

int lines_after_the_end = 0;

/// Runs when the pagers have ended, with a piece that was mapped and one that wasn't.
void UseAfterTheEnd(MEM_PagerInfo& mapped, MEM_PagerInfo& unmapped)
{
    const auto expect = [](bool holds, const char* what) {
        if (!holds)
            std::_Exit((std::fprintf(stderr, "after the end: %s\n", what), 1));
    };
    ZorGLog.SetLogLevel(5);
    ZorGLog.SetSink([](const Zor_LogRecord&) { ++lines_after_the_end; });
    MEM_MemPager* const pager = MEM_MemPager::GetHandle();
    MEM_PagerInfo fresh;
    expect(pager->Allocate(100, &fresh, 0) == -1, "Allocate");
    expect(!fresh.IsValid(), "a refused handle");
    expect(unmapped.Map() == -1, "Map");
    expect(unmapped.Cache() == -1, "Cache");
    expect(*static_cast<char*>(mapped.Ptr()) == 'm', "a mapped piece");
    expect(mapped.Unmap() == -1, "Unmap");
    expect(pager->ClearCache() == 0, "ClearCache");
    expect(pager->Free(unmapped) == 0, "Free");
    mapped.Release();
    expect(lines_after_the_end == 0, "the log");
    ZorGLog.SetSink({});
}

CHILD_ROLE(UsesThePagersAfterTheirEnd)
{
    static MEM_PagerInfo mapped, unmapped; // older than the pagers
    std::atexit([] { UseAfterTheEnd(mapped, unmapped); });
    LogCapture quiet(2);
    MEM_MemPager* const pager = MEM_MemPager::GetHandle();
    CHILD_CHECK(pager->Allocate(100, &mapped, 0) == 0);
    CHILD_CHECK(pager->Allocate(100, &unmapped, 0) == 0);
    *static_cast<char*>(mapped.Ptr()) = 'm';
    unmapped.Unmap();
    return 0;
}

TEST(End, RefusesAllThatComesLaterQuietly)
{
    SKIP_UNDER_A_SANITIZER();
    EXPECT_EQ(Child("UsesThePagersAfterTheirEnd").End(), 0);
}
} // namespace
