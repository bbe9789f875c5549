// Shared memory of huge pages, and pages found ahead. Hunts regions that are of small pages where
// huge ones are offered, a count of them that isn't the system's, more memory taken than was looked
// for, and contents or limits that depend on either.

#include "Mem/Mem_Configuration.h"
#include "Mem/Mem_MemPager.h"
#include "Platform/Posix/HugePages.h"
#include "posix/support/Children.h"
#include "support/PagerWorld.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/statvfs.h>

namespace
{
constexpr unsigned MiB = 1 << 20;
const std::string kOffers[] = {"huge=never", "huge=within_size", "huge=always", "huge=advise"};

/// Whether this system takes such options, and has such pages to give.
bool IsOffered(const std::string& options)
{
    return access("/sys/kernel/mm/transparent_hugepage/hpage_pmd_size", F_OK) == 0 &&
           Mount("tmpfs", "/dev/shm", ("size=512m," + options).c_str());
}

/// An answer about them stands for a while.
bool HugeBytesBecome(unsigned long long expected)
{
    Mem_Status status;
    const auto tell = [&status] { MEM_MemPager::GetHandle()->GetCurrentStatus(status); };
    tell();
    for (int look = 0; look < 1000 && status.total_huge != expected; ++look, tell())
        usleep(1000);
    return status.total_huge == expected;
}

/// Whether the system knows the advice by which a program asks for them.
bool CanBeAskedFor()
{
    return madvise(nullptr, 0, CollapseAdvice) == 0;
}

int RegionsAreOf(const std::string& offer, bool is_huge)
{
    if (!IsOffered(offer))
        return not_permitted;
    MEM_MemoryConfiguration::GetInstance()->SetCacheSize(0);
    MEM_PagerInfo pieces[3];
    for (MEM_PagerInfo& piece : pieces) {
        CHILD_CHECK(MEM_MemPager::GetHandle()->Allocate(8 * MiB, &piece, 0) == 0);
        CHILD_CHECK(static_cast<char*>(piece.Ptr())[8 * MiB - 1] == 0);
        std::memset(piece.Ptr(), 1, 8 * MiB);
    }
    CHILD_CHECK(HugeBytesBecome(is_huge ? 3 * 8 * MiB : 0));
    CHILD_CHECK(pieces[0].Unmap() == 0);
    CHILD_CHECK(HugeBytesBecome(is_huge ? 2 * 8 * MiB : 0));
    CHILD_CHECK(pieces[0].Map() == 0);
    CHILD_CHECK(static_cast<char*>(pieces[0].Ptr())[8 * MiB - 1] == 1);
    struct statvfs space;
    CHILD_CHECK(statvfs("/dev/shm", &space) == 0);
    const unsigned long long taken = (space.f_blocks - space.f_bfree) * space.f_frsize;
    const unsigned most = offer == "huge=always" ? 10 * MiB : 8 * MiB + 65536;
    CHILD_CHECK(taken <= 3 * most);
    return 0;
}

class Misses : public testing::TestWithParam<std::string>
{
};

TEST_P(Misses, FindRegionsOfTheOfferedPages)
{
    const bool is_huge = GetParam() != kOffers[0] || CanBeAskedFor();
    int code = 1; // the system may have to make room for them first, and then has it
    for (int attempt = 0; attempt < 3 && code != 0; ++attempt)
        code = InChildAmongOwnMounts([is_huge] { return RegionsAreOf(GetParam(), is_huge); });
    SKIP_IF_NOT_PERMITTED(code);
    EXPECT_EQ(code, 0);
}

CHILD_TEST(SmallPages, DoWhereTheProcessIsDeniedOthers, InChildAmongOwnMounts)
{
    CHILD_CHECK(prctl(PR_SET_THP_DISABLE, 1, 0, 0, 0) == 0);
    return RegionsAreOf(kOffers[0], false);
}

/// Runs tests of a program, which end as a child does.
int RunTests(const std::string& program, const std::string& filter)
{
    return std::system((program + " --gtest_brief --gtest_filter=" + filter + " >&2").c_str());
}

TEST_P(Misses, ChangeNeitherLimitsNorSweepsByPagesFoundAhead)
{
    char self[4096] = "";
    ASSERT_GT(readlink("/proc/self/exe", self, sizeof self - 1), 0);
    const int code = InChildAmongOwnMounts([&self] {
        if (!IsOffered(GetParam()))
            return not_permitted;
        setenv("MEMPAGER_TEST_PREFETCH", "100000000", 1);
        CHILD_CHECK(RunTests(UNIT_TESTS, "Sweep.*:MemFragments.*") == 0);
        CHILD_CHECK(RunTests(self, "PagerAtItsLimits.*Group*") == 0);
        return 0;
    });
    SKIP_IF_NOT_PERMITTED(code);
    EXPECT_EQ(code, 0);
}

INSTANTIATE_TEST_SUITE_P(Mounted, Misses, testing::ValuesIn(kOffers), [](const auto& offer) {
    return offer.param.substr(offer.param.find('=') + 1);
});
} // namespace
