// Hunts, with forked and killed processes: names that outlive their process, or are taken from a
// living one; promises of memory that end in a signal, of a group's limit too; creation that a
// timer keeps from getting on; a reader that can write; a name that leads its opener astray;
// failures that leave something behind.

#include "Platform/LastError.h"
#include "Platform/Mappings.h"
#include "posix/support/Children.h"
#include "support/Footprint.h"
#include "support/Leftovers.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <string>

#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/time.h>

namespace
{

namespace fs = std::filesystem;
constexpr std::uint64_t MiB = 1 << 20;
Platform::Mappings& platform = Platform::Mappings::Get();

std::string Name(pid_t process, const std::string& tail)
{
    return "NorvaneMemoryBlock_" + std::to_string(process) + "_" + tail;
}
std::string Path(pid_t process, int n)
{
    return "/dev/shm/" + Name(process, std::to_string(n));
}
int RemoveDead(pid_t process, const std::string& spare_folder = "")
{
    return RemoveDeadMappings(Name(process, ""), spare_folder);
}
void* Make(int n, std::uint64_t size, const std::string& spare_folder = "")
{
    return platform.CreateSharedMapping(Name(getpid(), std::to_string(n)).c_str(), size,
                                        spare_folder.c_str());
}

/// The cause of a refusal that leaves nothing behind; 0 for anything else.
unsigned long ErrorOf(std::uint64_t size)
{
    const Footprint before = Footprint::Now();
    const bool refused = Make(999, size) == nullptr;
    const unsigned long error = Platform::LastError();
    return refused && Footprint::Now() == before ? error : 0;
}

TEST(RegionsOfProcesses, AreRemovedOnceTheirCreatorIsKilled)
{
    void* own = Make(0, 1);
    EXPECT_EQ(RemoveDead(getpid()), 0);
    int leftovers = 0;
    for (useconds_t round = 0; round < 30; ++round) {
        const pid_t child = StartChild([] {
            for (int n = 0;; ++n)
                Make(n, MiB / 4);
            return 0;
        });
        usleep(2000 + 137 * round);
        EXPECT_EQ(RemoveDead(child), 0) << "it lives";
        EXPECT_TRUE(EndByKill(child));
        int seen = 0;
        for (; fs::exists(Path(child, seen)); ++seen)
            ASSERT_EQ(fs::file_size(Path(child, seen)), MiB / 4) << "half made";
        leftovers += RemoveDead(child);
        for (int n = 0; n < seen; ++n)
            EXPECT_FALSE(fs::exists(Path(child, n))) << n;
    }
    EXPECT_GT(leftovers, 0);
    EXPECT_TRUE(fs::exists(Path(getpid(), 0)));
    EXPECT_TRUE(platform.CloseMapping(own));
}

TEST(RegionsOfProcesses, GoWithTheirMakerAndStayWithItsChildren)
{
    void* regions[] = {Make(0, 1), Make(1, 1)};
    const pid_t maker = StartChild([&] {
        CHILD_CHECK(platform.CloseMapping(regions[1]), Make(5, 1) != nullptr);
        std::exit(0);
    });
    EXPECT_EQ(EndOfChild(maker), 0);
    EXPECT_FALSE(fs::exists(Path(maker, 5)));
    for (int n : {0, 1}) {
        EXPECT_TRUE(fs::exists(Path(getpid(), n))) << n;
        EXPECT_TRUE(platform.CloseMapping(regions[n])) << n;
    }

    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const pid_t parent = StartChild([&] { // ends without clean-up, its own child lives on
        Make(0, 1);
        StartChild([&] { return close(ends[1]) == 0 && read(ends[0], ends, 1) == 0 ? 0 : 2; });
        return 0;
    });
    EXPECT_EQ(EndOfChild(parent), 0);
    EXPECT_TRUE(RemoveDead(parent) == 0);
    EXPECT_TRUE(fs::exists(Path(parent, 0)));
    close(ends[1]);
    for (; fs::exists(Path(parent, 0)); RemoveDead(parent))
        usleep(100); // its end isn't ours to wait for
    close(ends[0]);
}

CHILD_TEST(RegionsOfProcesses, MeetATimerAndLimits, InChild)
{
    std::signal(SIGALRM, [](int) {});
    const itimerval often{{0, 1000}, {0, 1000}};
    setitimer(ITIMER_REAL, &often, nullptr);
    void* region = Make(0, 256 * MiB);
    CHILD_CHECK(region != nullptr);
    Limit(RLIMIT_FSIZE, MiB);
    CHILD_CHECK(ErrorOf(MiB + 1) == EFBIG); // or SIGXFSZ
    Limit(RLIMIT_AS, MiB);                  // less than there is already
    CHILD_CHECK(platform.MapView(region, 0, MiB) == nullptr, Platform::LastError() == ENOMEM);
    const bool made = Make(1, MiB) != nullptr;
    Limit(RLIMIT_AS, RLIM_INFINITY);
    CHILD_CHECK(!made, Platform::LastError() == ENOMEM);
    CHILD_CHECK(Footprint::Now().names == 1, Footprint::Now().maps == 1);
    Limit(RLIMIT_NOFILE, 0);
    CHILD_CHECK(Make(1, MiB) == nullptr, Platform::LastError() == EMFILE);
    return platform.CloseMapping(region) ? 0 : 2;
}

// Whatever bears the name, an opener neither waits at it nor follows it.
TEST(RegionsOfProcesses, AreNeitherPipesNorLinks)
{
    for (const bool is_pipe : {true, false}) {
        const std::string path = Path(getpid(), 3);
        EXPECT_EQ(is_pipe ? mkfifo(path.c_str(), 0644) : symlink("/etc/passwd", path.c_str()), 0);
        EXPECT_EQ(platform.OpenMapping(Name(getpid(), "3").c_str(), ""), nullptr) << is_pipe;
        EXPECT_TRUE(fs::remove(path));
    }
}

TEST(RegionsOfProcesses, CanBeReadByAllButNotWritten)
{
    void* const region = Make(0, 1);
    for (const bool by_another_user : {false, true})
        EXPECT_EQ(-SIGSEGV, InChild([&] {
            if (by_another_user)
                CHILD_CHECK(GiveUpRights());
            void* const opened = platform.OpenMapping(Name(getppid(), "0").c_str(), "");
            CHILD_CHECK(opened != nullptr);
            auto* const view = static_cast<volatile char*>(platform.MapView(opened, 0, 1));
            CHILD_CHECK(view != nullptr);
            CHILD_CHECK(*view == 0);
            CHILD_CHECK(mprotect(const_cast<char*>(view), 1, PROT_READ | PROT_WRITE) != 0);
            std::signal(SIGSEGV, SIG_DFL); // no sanitizer's
            *view = 1;
            return 0;
        }));
    EXPECT_TRUE(platform.CloseMapping(region));
}

} // namespace
