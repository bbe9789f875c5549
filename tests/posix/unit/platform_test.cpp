// Hunts, in one process: regions that others can write to; names taken over from somebody
// else, at creation or at closing; bytes that are lost with the name; memory limits read from the
// wrong group.

#include "Platform/LastError.h"
#include "Platform/Mappings.h"
#include "Platform/Posix/Allowance.h"
#include "Platform/Posix/MemoryLimits.h"
#include "posix/support/Children.h"
#include "support/Footprint.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace
{

namespace fs = std::filesystem;
constexpr std::uint64_t MiB = 1 << 20;

TEST(Regions, NeedNoNameAndLeaveOthersAlone)
{
    const Footprint before = Footprint::Now();
    Platform::Mappings& platform = Platform::Mappings::Get();
    const std::string name = "NorvaneMemoryBlock_" + std::to_string(getpid()) + "_1_0";
    const std::string path = "/dev/shm/" + name;
    const std::uint64_t page = platform.AllocationGranularity();
    void* region = platform.CreateSharedMapping(name.c_str(), page, "");
    const auto view = [&] { return static_cast<char*>(platform.MapView(region, 0, page)); };
    EXPECT_EQ(fs::status(path).permissions(), fs::perms{0644}); // whatever readers ask for
    char* first = view();
    std::strcpy(first, "kept");
    EXPECT_TRUE(platform.UnmapView(first, page));
    fs::remove(path); // as a login manager does at logout
    std::ofstream(path) << "mine";
    fs::create_symlink("/dev/shm/nowhere", path + "link");
    for (const std::string& refused : {name, name + "link"}) {
        EXPECT_EQ(platform.CreateSharedMapping(refused.c_str(), page, ""), nullptr) << refused;
        EXPECT_EQ(Platform::LastError(), static_cast<unsigned long>(EEXIST)) << refused;
    }
    char* anew = view();
    EXPECT_TRUE(platform.CloseMapping(region));
    EXPECT_STREQ(anew, "kept");
    EXPECT_EQ(fs::file_size(path), 4u) << "closing took a namesake's name away";
    EXPECT_TRUE(fs::remove(path));
    EXPECT_TRUE(fs::remove(path + "link"));
    EXPECT_TRUE(platform.UnmapView(anew, page));
    EXPECT_EQ(Footprint::Now(), before);
}

TEST(Limits, AreTheLeastOfAllGroupsAbove)
{
    const fs::path root = fs::temp_directory_path() / ("groups" + std::to_string(getpid()));
    fs::create_directories(root / "one/a/b");
    fs::create_directories(root / "two/c/d");
    const auto write = [&](const char* file, const std::string& text) {
        std::ofstream(root / file) << text << '\n';
        return (root / file).string();
    };
    const std::string groups = write("groups", "4:cpu,memory:/pod/a/b\n1:cpu:/\n0::/c/d");
    write("one/a/memory.limit_in_bytes", "5000");
    write("one/memory.limit_in_bytes", "6000");
    write("two/c/d/memory.max", "max");
    write("two/c/memory.max", "100000000");
    write("two/c/memory.current", "90000000");

    const auto limit = [&](const char* top, const char* folder, const char* type) {
        const std::string line = std::string("35 31 0:32 ") + top + ' ' + (root / folder).string() +
                                 " rw shared:9 - " + type + " x rw,memory\n";
        return ControlGroupLimit(GroupFolders(groups.c_str(), write("mounts", line).c_str()));
    };
    EXPECT_EQ(limit("/pod", "one", "cgroup"), 5000u);
    EXPECT_EQ(limit("/of_host", "one", "cgroup"), 6000u);
    EXPECT_EQ(limit("/", "two", "cgroup2"), 100000000u);

    const auto grants_something = [&](const char* pages, const char* machine) {
        write("two/c/memory.stat", pages);
        const GroupFolders folders(groups.c_str(), (root / "mounts").c_str());
        return MemoryHeadroom(folders, write("m", machine).c_str()).Grants(MiB) != 0;
    };
    EXPECT_FALSE(grants_something("inactive_file 7\nactive_file 6842744", ""));
    EXPECT_TRUE(grants_something("inactive_file 8\nactive_file 6842744", "SwapFree: 16448 kB"));
    EXPECT_FALSE(grants_something("file 9\nactive_file 6842752", "MemAvailable:  16447 kB"));
    fs::remove_all(root);
}

TEST(Limits, AreLookedAtAgainOnceALookIsUsedUp)
{
    constexpr std::uint64_t half = Allowance::Size / 2;
    Allowance allowance;
    int tries = 100; // the moment can pass meanwhile
    do
        allowance.Renew(Allowance::Plenty, half);
    while (!allowance.Take(half) && --tries > 0);
    EXPECT_GT(tries, 0);
    EXPECT_FALSE(allowance.Take(1));
    allowance.Renew(Allowance::Plenty - 1, half);
    EXPECT_FALSE(allowance.Take(1)) << "near a limit";
    allowance.Renew(Allowance::Plenty, half);
    EXPECT_EQ(InChild([&] { return allowance.Take(1) ? 2 : 0; }), 0);
    usleep(Allowance::Moment * 2000);
    EXPECT_FALSE(allowance.Take(1)) << "long ago";
}

} // namespace
