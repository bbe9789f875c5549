// Hunts, with forked and killed processes: names that outlive their process, or are taken from a
// living one; promises of memory that end in a signal; creation that a timer keeps from getting
// on; failures at a limit that leave something behind.

#include "Platform/Platform.h"
#include "support/Children.h"
#include "support/Footprint.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <cstring>
#include <thread>

#include <sys/stat.h>
#include <sys/time.h>

namespace
{

namespace fs = std::filesystem;
constexpr std::uint64_t MiB = 1 << 20;
Platform& platform = Platform::Get();

std::string Name(pid_t process, const std::string& tail)
{
    return "NorvaneMemoryBlock_" + std::to_string(process) + "_" + tail;
}
std::string Path(pid_t process, int n)
{
    return "/dev/shm/" + Name(process, std::to_string(n));
}
int RemoveDead(pid_t process)
{
    return platform.RemoveDeadMappings(Name(process, "").c_str());
}
void* Make(int n, std::uint64_t size)
{
    return platform.CreateSharedMapping(Name(getpid(), std::to_string(n)).c_str(), size);
}

bool FailsWith(unsigned long error, std::uint64_t size)
{
    const Footprint before = Footprint::Now();
    return Make(999, size) == nullptr && platform.LastError() == error &&
           Footprint::Now() == before;
}

CHILD_TEST(RegionsOfProcesses, NeedNoDescriptors, InChild)
{
    Limit(RLIMIT_NOFILE, 20);
    void* regions[3000];
    int n = 0;
    for (void*& region : regions) {
        CHILD_CHECK((region = Make(++n, 8192)) != nullptr);
        void* view = platform.MapView(region, 0, 8192);
        CHILD_CHECK(view != nullptr && std::memcpy(view, &region, sizeof region));
        CHILD_CHECK(platform.UnmapView(view, 8192));
    }
    for (void* region : regions) {
        void* view = platform.MapView(region, 0, 8192);
        CHILD_CHECK(view != nullptr && std::memcmp(view, &region, sizeof region) == 0);
        CHILD_CHECK(platform.CloseMapping(region));
    }
    return Footprint::Now().names == 0 ? 0 : 2;
}

TEST(RegionsOfProcesses, AreRemovedOnceTheirCreatorIsKilled)
{
    void* own = Make(0, 1);
    fs::create_symlink("/etc/passwd", Path(getpid(), 1));
    fs::create_directory(Path(getpid(), 2));
    mkfifo(Path(getpid(), 3).c_str(), 0644);
    std::ofstream("/dev/shm/foreign" + Name(getpid(), "")) << "no region";
    EXPECT_EQ(RemoveDead(getpid()), 0);
    EXPECT_TRUE(fs::remove("/dev/shm/foreign" + Name(getpid(), "")));
    for (int n : {1, 2, 3})
        EXPECT_TRUE(fs::remove(Path(getpid(), n))) << n;
    int leftovers = 0;
    for (useconds_t round = 0; round < 30; ++round) {
        const pid_t child = StartChild([] {
            for (int n = 0;; ++n)
                Make(n, MiB / 4);
            return 0;
        });
        usleep(2000 + 137 * round);
        EXPECT_EQ(RemoveDead(child), 0) << "it lives";
        kill(child, SIGKILL);
        EXPECT_EQ(EndOfChild(child), -SIGKILL);
        int seen = 0;
        for (; fs::exists(Path(child, seen)); ++seen)
            ASSERT_EQ(fs::file_size(Path(child, seen)), MiB / 4) << "half made";
        leftovers += RemoveDead(child);
        for (int n = 0; n < seen; ++n)
            EXPECT_FALSE(fs::exists(Path(child, n))) << n;
    }
    EXPECT_GT(leftovers, 0);
    EXPECT_TRUE(fs::exists(Path(getpid(), 0)) && platform.CloseMapping(own));
}

TEST(RegionsOfProcesses, GoWithTheirMakerAndStayWithItsChildren)
{
    void* regions[] = {Make(0, 1), Make(1, 1)};
    int heir = 0;
    const pid_t maker = StartChild([&] {
        CHILD_CHECK(platform.CloseMapping(regions[1]) && Make(5, 1) != nullptr);
        std::exit(0);
    });
    EXPECT_EQ(EndOfChild(maker), 0);
    EXPECT_FALSE(fs::exists(Path(maker, 5)));
    for (int n : {0, 1})
        EXPECT_TRUE(fs::exists(Path(getpid(), n)) && platform.CloseMapping(regions[n])) << n;

    int tell[2];
    ASSERT_EQ(pipe(tell), 0);
    const pid_t parent = StartChild([&] { // ends without clean-up, its own child lives on
        Make(0, 1);
        heir = StartChild([] { return pause(); });
        return write(tell[1], &heir, sizeof heir) == sizeof heir ? 0 : 1;
    });
    close(tell[1]);
    ASSERT_EQ(read(tell[0], &heir, sizeof heir), ssize_t{sizeof heir});
    EXPECT_EQ(EndOfChild(parent), 0);
    EXPECT_TRUE(RemoveDead(parent) == 0 && fs::exists(Path(parent, 0)));
    kill(heir, SIGKILL);
    for (; fs::exists(Path(parent, 0)); RemoveDead(parent))
        usleep(100); // its end isn't ours to wait for
    close(tell[0]);
}

// The first process of a container and of one inside it bear the same id.
CHILD_TEST(RegionsOfProcesses, AreNotTakenByAChildOfTheSameId, InChildAmongOwnMounts)
{
    CHILD_CHECK(Mount("tmpfs", "/dev/shm"));
    if (unshare(CLONE_NEWPID) != 0)
        return not_permitted;
    return InChild([] {
        void* region = Make(0, 1);
        CHILD_CHECK(unshare(CLONE_NEWPID) == 0);
        const int closed = InChild([&] { return platform.CloseMapping(region) ? getpid() : 0; });
        return closed == getpid() && fs::exists(Path(closed, 0)) ? 0 : 2;
    });
}

TEST(RegionsOfProcesses, LeaveForksOfManyThreadsWhole)
{
    const long descriptors = Footprint::Now().descriptors;
    std::atomic<bool> enough = false;
    const auto work = [&enough](int first) {
        for (int n = first; !enough; n += 2)
            EXPECT_TRUE(platform.CloseMapping(Make(n, MiB / 4)));
    };
    std::thread even(work, 0), odd(work, 1);
    for (int n = 0; n < 200; ++n)
        EXPECT_EQ(0, InChild([descriptors] { // neither locked out nor left with a descriptor
                      CHILD_CHECK(Footprint::Now().descriptors == descriptors);
                      return platform.CloseMapping(Make(0, 1)) ? 0 : 2;
                  }))
            << n;
    enough = true;
    even.join();
    odd.join();
}

CHILD_TEST(RegionsOfProcesses, GetReadyUnderATimer, InChild)
{
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, nullptr);
    const itimerval often{{0, 1000}, {0, 1000}};
    setitimer(ITIMER_REAL, &often, nullptr);
    void* region = Make(0, 256 * MiB);
    struct stat status;
    CHILD_CHECK(region != nullptr && stat(Path(getpid(), 0).c_str(), &status) == 0);
    CHILD_CHECK(static_cast<std::uint64_t>(status.st_blocks) * 512 >= 256 * MiB);
    return platform.CloseMapping(region) ? 0 : 2;
}

CHILD_TEST(RegionsOfProcesses, MeetLimitsWithoutASignal, InChild)
{
    Limit(RLIMIT_FSIZE, MiB);
    CHILD_CHECK(FailsWith(EFBIG, MiB + 1));
    void* region = Make(0, MiB);
    Limit(RLIMIT_AS, MiB); // less than there is already
    CHILD_CHECK(platform.AddressSpace() == MiB);
    CHILD_CHECK(platform.MapView(region, 0, MiB) == nullptr && platform.LastError() == ENOMEM);
    const bool made = Make(1, MiB) != nullptr;
    Limit(RLIMIT_AS, RLIM_INFINITY);
    CHILD_CHECK(!made && platform.LastError() == ENOMEM);
    CHILD_CHECK(Footprint::Now().names == 1 && Footprint::Now().maps == 1);
    Limit(RLIMIT_NOFILE, 0);
    CHILD_CHECK(Make(1, MiB) == nullptr && platform.LastError() == EMFILE);
    return platform.CloseMapping(region) ? 0 : 2;
}

CHILD_TEST(RegionsOfProcesses, MeetAFullABarredAndAMissingFolder, InChildAmongOwnMounts)
{
    CHILD_CHECK(Mount("tmpfs", "/dev/shm", "size=16m"));
    for (int round = 0; round < 2; ++round) { // the room comes back
        void* regions[] = {Make(0, 7 * MiB), Make(1, 7 * MiB)};
        CHILD_CHECK(FailsWith(ENOSPC, 7 * MiB));
        for (void* region : regions) {
            void* view = platform.MapView(region, 0, 7 * MiB);
            CHILD_CHECK(view != nullptr && std::memset(view, 1, 7 * MiB)); // or SIGBUS
            CHILD_CHECK(platform.UnmapView(view, 7 * MiB) && platform.CloseMapping(region));
        }
    }
    CHILD_CHECK(Mount("tmpfs", "/dev/shm", "", MS_RDONLY) && FailsWith(EROFS, 1));
    CHILD_CHECK(Mount("tmpfs", "/dev") && Make(0, 1) == nullptr);
    return platform.LastError() == ENOENT ? 0 : 2;
}

// Without /proc a file has its name from the start, on ramfs it is written instead of reserved: a
// cleaner that comes in between must never take away what was handed out.
CHILD_TEST(RegionsOfProcesses, AreSafeFromCleanersWhereTheNameComesFirst, InChildAmongOwnMounts)
{
    CHILD_CHECK(Mount("tmpfs", "/dev/shm", "size=1m") && Mount("tmpfs", "/proc"));
    CHILD_CHECK(!Make(0, 2 * MiB) && platform.LastError() == ENOSPC && fs::is_empty("/dev/shm"));
    CHILD_CHECK(Mount("ramfs", "/dev/shm"));
    void* big = Make(0, 3 * MiB + 5);
    CHILD_CHECK(!Make(0, 1) && platform.LastError() == EEXIST && platform.CloseMapping(big));
    const pid_t self = getpid();
    const pid_t cleaner = StartChild([self] {
        while (RemoveDead(self) >= 0) {
        }
        return 0;
    });
    int made = 0;
    for (int n = 0; n < 20000; ++n) {
        void* region = Make(n, 1);
        CHILD_CHECK(region != nullptr || platform.LastError() == ESTALE);
        CHILD_CHECK(region == nullptr || fs::exists(Path(self, n)));
        CHILD_CHECK(region == nullptr || (++made, platform.CloseMapping(region)));
    }
    kill(cleaner, SIGKILL);
    CHILD_CHECK(EndOfChild(cleaner) == -SIGKILL && made > 0);
    return fs::is_empty("/dev/shm") ? 0 : 2;
}

} // namespace
