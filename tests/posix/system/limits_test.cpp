// Whole pagers, each in a process of its own, short of shared memory, disk, memory, descriptors or
// names. Hunts a lost byte, a signal in place of a refusal, and what outlives its process or is
// taken from a living one.

#include "Mem/Mem_Configuration.h"
#include "Mem/Mem_MemInfo.h"
#include "Mem/Mem_MemPager.h"
#include "Zor/Zor_Buffer.h"
#include "posix/support/Children.h"
#include "support/Footprint.h"
#include "support/PagerWorld.h"
#include "support/ThisProcess.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <list>
#include <numeric>
#include <random>

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>

namespace
{
namespace fs = std::filesystem;
constexpr unsigned MiB = 1 << 20;

/// How many names in a folder hold `part`.
long Count(const std::string& folder, const std::string& part)
{
    std::error_code none;
    return std::count_if(fs::directory_iterator(folder, none), {}, [&](const auto& entry) {
        return entry.path().filename().string().find(part) != std::string::npos;
    });
}
long Names(pid_t process, const std::string& temp)
{
    const std::string part = "NorvaneMemoryBlock_" + std::to_string(process) + "_";
    return Count("/dev/shm", part) + Count(temp, part);
}

struct Piece {
    bool Whole()
    {
        const bool mapped = info.Map() == 0;
        const auto* words = static_cast<const unsigned*>(info.Ptr());
        const auto right = [now = seed](unsigned word) mutable { return word == now++; };
        return mapped && std::all_of(words, words + info.Size() / 4, right) && info.Unmap() == 0;
    }
    MEM_PagerInfo info;
    unsigned seed = 0;
};

/// Pieces that wait unmapped, each full of numbers of its own.
struct Pieces : std::list<Piece> {
    bool Add(unsigned size, int count = 1)
    {
        for (; count != 0; --count) {
            Piece& piece = emplace_back();
            if (MEM_MemPager::GetHandle()->Allocate(size, &piece.info, 0) != 0)
                return pop_back(), false;
            auto* words = static_cast<unsigned*>(piece.info.Ptr());
            std::iota(words, words + size / 4, piece.seed = ++last_seed << 24);
            piece.info.Unmap();
        }
        return true;
    }
    bool Whole() { return std::all_of(begin(), end(), std::mem_fn(&Piece::Whole)); }
    /// Allocates, looks at and frees pieces of all sizes. @return false once a byte is wrong.
    bool Live(int steps)
    {
        for (; steps != 0; --steps) {
            Add(static_cast<unsigned>(random()) % (6 * MiB) / 4 * 4 + 4);
            if (!empty() && !front().Whole())
                return false;
            if (random() % 24 < size())
                pop_front();
        }
        return Whole();
    }
    unsigned last_seed = 0;
    std::minstd_rand random{static_cast<unsigned>(getpid())};
};

/// A process's life from its first piece to its last. Another one looks at the pieces, too.
int Life(unsigned swap_mb, const std::string& temp, bool is_seen = true)
{
    struct {
        unsigned seed;
        char bytes[1000];
    } now{};
    int ends[2];
    CHILD_CHECK(pipe(ends) == 0);
    Configure(swap_mb, temp);
    const pid_t reader = StartChild([&] { // before this process has a pager
        for (close(ends[1]); read(ends[0], &now, sizeof now) > 0;) {
            MEM_MemInfo info;
            Zor_iBuffer(now.bytes, sizeof now.bytes) >> info;
            if (!Piece{MEM_MemPager::GetHandle()->Register(info), now.seed}.Whole())
                return 3;
        }
        return 0;
    });
    Pieces pieces;
    CHILD_CHECK(pieces.Add(8 * MiB, 8), pieces.Live(60), pieces.Add(8 * MiB, 8));
    const bool needs_files = swap_mb <= 1000;
    CHILD_CHECK((Count(temp, "TempFile") > 0) == needs_files);
    for (Piece& piece : pieces) {
        Zor_oBuffer out;
        MEM_MemPager::GetHandle()->StreamMemInfo(piece.info, out);
        out.Bytes().copy(now.bytes, sizeof now.bytes);
        now.seed = piece.seed;
        CHILD_CHECK(write(ends[1], &now, sizeof now) > 0);
    }
    close(ends[1]);
    CHILD_CHECK(EndOfChild(reader) == (is_seen ? 0 : 3), pieces.Whole());
    pieces.clear();
    return Names(getpid(), temp) == 0 ? 0 : 2;
}

CHILD_TEST(PagerAtItsLimits, KeepsBothKindsOfMemorySideBySide, InChild)
{
    return Life(30, TempFolder().path);
}

TEST(PagerAtItsLimits, LiesOnADiskWhereSharedMemoryIsSpoiled)
{
    const struct {
        const char *where, *options;
        unsigned long flags = 0;
        bool takes_names = false;
    } cases[] = {{"/dev/shm", "size=16m", 0, true},
                 {"/dev/shm", "size=4k", 0, true},
                 {"/dev/shm", "nr_inodes=1"},
                 {"/dev/shm", "", MS_RDONLY},
                 {"/dev", ""}};
    for (const auto& now : cases)
        for (const unsigned swap_mb : {1500u, 0u}) {
            const TempFolder temp;
            const int code = InChildAmongOwnMounts([&] {
                CHILD_CHECK(Mount("tmpfs", now.where, now.options, now.flags));
                return Life(swap_mb, temp.path, now.takes_names || swap_mb != 0);
            });
            SKIP_IF_NOT_PERMITTED(code);
            EXPECT_EQ(code, 0) << now.where << " " << now.options << " " << swap_mb;
        }
}

CHILD_TEST(PagerAtItsLimits, IsRefusedOnceTheDiskIsFullToo, InChildAmongOwnMounts)
{
    const TempFolder temp;
    const std::string &folder = temp.path, make = " && truncate -s 100M disk && mkfs.ext4 -q disk";
    if (std::system(("cd " + folder + make + " && mount -o loop disk " + folder).c_str()) != 0)
        return not_permitted;
    CHILD_CHECK(Mount("tmpfs", "/dev/shm", "size=16m"));
    Configure(1500, folder);
    LogCapture log(5);
    Pieces pieces;
    while (pieces.Add(3 * MiB)) {
    }
    CHILD_CHECK(pieces.size() > 20, log.Count(5, "SwapMapInfo::AllocateSwap|") > 0);
    const std::string told = "MEM_MemPager::Allocate|\tA limit stands in the way: ";
    CHILD_CHECK(log.Count(3, told + "/dev/shm of 16 MB, 7 MB left; the temp folder's disk of 8") ==
                1);
    Configure(0);
    CHILD_CHECK(!pieces.Add(9 * MiB), !pieces.Add(9 * MiB), pieces.Whole());
    CHILD_CHECK(log.Count(3, told + "the temp folder's disk, 0 MB") == 1, log.Count(3, told) == 2);
    pieces.clear(); // and the room comes back
    CHILD_CHECK(pieces.Add(3 * MiB, 14), !pieces.Add(9 * MiB), pieces.Whole());
    CHILD_CHECK(log.Count(3, told + "a temp file of at least 64 MB, for which ") == 1);
    pieces.clear();
    CHILD_CHECK(Names(getpid(), folder) == 0, umount2(folder.c_str(), MNT_DETACH) == 0);
    return 0;
}

/// A control group below that of this process, if the system permits it.
struct Group {
    explicit Group(unsigned limit)
    {
        std::string line;
        for (std::ifstream groups("/proc/self/cgroup"); std::getline(groups, line);)
            folder += line.find(":memory:") == line.npos ? "" : line.substr(line.rfind(':') + 1);
        mkdir((folder += "/mempager_limits_" + std::to_string(getpid())).c_str(), 0755);
        made = bool(std::ofstream(folder + "/memory.limit_in_bytes") << limit << std::flush);
    }
    ~Group() { rmdir(folder.c_str()); }
    bool Enter() const
    {
        return bool(std::ofstream(folder + "/cgroup.procs") << getpid() << std::flush);
    }
    std::string folder = "/sys/fs/cgroup/memory";
    bool made;
};

TEST(PagerAtItsLimits, LiesOnADiskBeforeItsGroupKillsIt)
{
    const Group group(100 * MiB);
    SKIP_IF_NOT_PERMITTED(group.made ? 0 : not_permitted);
    const TempFolder temp;
    pid_t children[3];
    for (pid_t& child : children)
        child = StartChild([&] {
            CHILD_CHECK(group.Enter());
            return Life(40, temp.path);
        });
    for (const pid_t child : children)
        EXPECT_EQ(EndOfChild(child), 0);
}

TEST(PagerAtItsLimits, LetsManyShareAGroup)
{
    const Group group(200 * MiB);
    SKIP_IF_NOT_PERMITTED(group.made ? 0 : not_permitted);
    const TempFolder temp;
    int start[2];
    ASSERT_EQ(pipe(start), 0);
    pid_t children[24];
    for (pid_t& child : children)
        child = StartChild([&] {
            char byte = 0;
            Configure(1500, temp.path);
            Pieces pieces;
            CHILD_CHECK(group.Enter(), close(start[1]) == 0, read(start[0], &byte, 1) == 0);
            CHILD_CHECK(pieces.Add(8 * MiB, 4));
            return pieces.Whole() ? 0 : 2;
        });
    close(start[0]);
    close(start[1]);
    for (const pid_t child : children)
        EXPECT_EQ(EndOfChild(child), 0);
}

TEST(PagerAtItsLimits, SeesTheGroupThatItWasMovedTo)
{
    const Group group(60 * MiB);
    SKIP_IF_NOT_PERMITTED(group.made ? 0 : not_permitted);
    const TempFolder temp;
    EXPECT_EQ(0, InChild([&] {
                  Configure(1500, temp.path);
                  MEM_MemoryConfiguration::GetInstance()->SetBaseBlockSize(0);
                  Pieces pieces; // two share a look as long as much is left
                  CHILD_CHECK(pieces.Add(MiB / 2, 33), group.Enter(), pieces.Add(MiB / 2, 140));
                  CHILD_CHECK(Count(temp.path, "NorvaneMemoryBlock") > 2);
                  return pieces.Whole() ? 0 : 2;
              }));
}

/// Runs the body in the first process of a pid namespace, so that all of them bear one id.
template <class Body>
pid_t StartNamesake(Body body)
{
    return StartChild([body] { return unshare(CLONE_NEWPID) == 0 ? InChild(body) : 3; });
}

CHILD_TEST(PagerAtItsLimits, CleansUpAfterTheDeadAlone, InChildAmongOwnMounts)
{
    const TempFolder temp;
    int ends[2], leftovers = 0;
    char byte = 0;
    CHILD_CHECK(Mount("tmpfs", "/dev/shm", "size=64m"));
    CHILD_CHECK(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0);
    Configure(90, temp.path);
    const pid_t living = StartNamesake([&] { // ends without a clean-up
        Pieces& pieces = *new Pieces;
        CHILD_CHECK(pieces.Add(8 * MiB, 16), write(ends[1], &byte, 1) == 1);
        const long names = Names(1, temp.path);
        pollfd word{ends[1], POLLIN, 0}; // the first of a namespace gets no alarm
        CHILD_CHECK(poll(&word, 1, 60000) == 1, Names(1, temp.path) == names);
        return pieces.Whole() ? 0 : 2;
    });
    CHILD_CHECK(read(ends[0], &byte, 1) == 1, Count(temp.path, "TempFile") > 0);
    for (useconds_t round = 0; round < 60; ++round) {
        const pid_t child = StartChild([] { return Pieces().Live(-1) ? 2 : 3; });
        usleep(3000 + round * 5003 % 101000);
        CHILD_CHECK(EndByKill(child));
        leftovers += Names(child, temp.path) != 0 ? 1 : 0;
    }
    CHILD_CHECK(leftovers > 30);
    CHILD_CHECK(0 == EndOfChild(StartNamesake([] { // whose first names are taken
                    Pieces pieces;
                    return pieces.Add(8 * MiB, 16) ? 0 : 2;
                })));
    CHILD_CHECK(write(ends[0], &byte, 1) == 1, EndOfChild(living) == 0);
    CHILD_CHECK(Names(1, temp.path) > 12, Count(temp.path, "") > 4);
    CHILD_CHECK(0 == EndOfChild(StartNamesake([] { // each region takes its part of the clean-up
                    for (int round = 0; round < 100; ++round)
                        CHILD_CHECK(Pieces().Add(4));
                    return 0;
                })));
    CHILD_CHECK(fs::is_empty("/dev/shm"));
    return fs::is_empty(temp.path) ? 0 : 2;
}

CHILD_TEST(PagerAtItsLimits, NeedsFewDescriptorsAndNoNames, InChildAmongOwnMounts)
{
    const TempFolder temp;
    CHILD_CHECK(Mount("tmpfs", "/dev/shm"));
#ifdef MEMPAGER_CHECK_INVARIANTS
    constexpr int count = 1000; // each call looks at all of them
#else
    constexpr int count = 20000;
#endif
    Configure(count / 20, temp.path);
    MEM_MemoryConfiguration::GetInstance()->SetBaseBlockSize(0);
    Limit(RLIMIT_NOFILE, 50);
    Pieces pieces;
    CHILD_CHECK(pieces.Add(65536, count), Count(temp.path, "TempFile") > 0);
    for (const auto& entry : fs::directory_iterator("/dev/shm"))
        fs::remove(entry);
    fs::remove_all(temp.path);
    LogCapture log(5);
    CHILD_CHECK(pieces.Whole(), !pieces.Add(90 * MiB));
    CHILD_CHECK(log.Count(3, "MEM_MemPager::Allocate|\tA") == 1);
    CHILD_CHECK(fs::create_directory(temp.path), pieces.Add(90 * MiB));
    pieces.clear();
    CHILD_CHECK(fs::is_empty("/dev/shm"));
    return fs::is_empty(temp.path) ? 0 : 2;
}

TEST(PagerAtItsLimits, TakesTheTempFolderItIsTold)
{
    const TempFolder temp;
    const std::string &folder = temp.path, barred = folder + "/barred", missing = folder + "/none";
    ASSERT_TRUE(fs::create_directory(barred));
    ASSERT_TRUE(chmod(barred.c_str(), 0500) == 0);
    const std::pair<std::string, std::string> told_and_taken[] = {
        {"unset", "/var/tmp"},  {"", "/var/tmp"}, {".", folder}, {folder, folder},
        {folder + "/", folder}, {missing, ""},    {barred, ""}};
    for (const auto& [told, taken] : told_and_taken)
        EXPECT_EQ(0, InChild([&, &told = told, &taken = taken] {
                      CHILD_CHECK(chdir(folder.c_str()) == 0);
                      CHILD_CHECK(GiveUpRights());
                      told == "unset" ? unsetenv("TEMP") : setenv("TEMP", told.data(), 1);
                      Configure(0);
                      LogCapture log(5);
                      Pieces pieces;
                      CHILD_CHECK(pieces.Add(MiB, 3) != taken.empty());
                      CHILD_CHECK((log.Count(5, "ShmmHeap::Allocate|") > 0) == taken.empty());
                      CHILD_CHECK(Names(getpid(), taken) == (taken.empty() ? 0 : 2));
                      pieces.clear();
                      return Names(getpid(), taken) == 0 ? 0 : 2;
                  }))
            << told;
}
} // namespace
