// Hunts, in one process: regions that aren't reserved, readable or zero; names taken over from
// somebody else, at creation or at closing; views that miss their bytes or lose them with the
// name; failures without their cause; memory limits read from the wrong group.

#include "Platform/LastError.h"
#include "Platform/Mappings.h"
#include "Platform/Posix/MemoryLimits.h"
#include "support/Footprint.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

#include <sys/stat.h>

namespace
{

namespace fs = std::filesystem;
constexpr std::uint64_t MiB = 1 << 20;

class Regions : public testing::Test
{
protected:
    void TearDown() override { EXPECT_EQ(Footprint::Now(), before); }

    void* Make(std::uint64_t size) { return platform.CreateSharedMapping(name.c_str(), size, ""); }
    char* View(void* region, std::uint64_t offset, std::uint64_t size)
    {
        return static_cast<char*>(platform.MapView(region, offset, size));
    }

    Platform::Mappings& platform = Platform::Mappings::Get();
    const std::string name = "NorvaneMemoryBlock_" + std::to_string(getpid()) + "_1_0";
    const std::string path = "/dev/shm/" + name;
    const std::uint64_t page = platform.AllocationGranularity();
    const Footprint before = Footprint::Now();
};

TEST_F(Regions, AreReservedZeroAndReadableByAll)
{
    const std::uint64_t size = 3 * MiB + 5;
    void* region = Make(size);
    struct stat status;
    ASSERT_EQ(lstat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, mode_t{S_IFREG | 0644});
    EXPECT_GE(static_cast<std::uint64_t>(status.st_blocks) * 512, size);
    char* view = View(region, 0, size);
    EXPECT_EQ(std::count(view, view + size, 0), static_cast<std::ptrdiff_t>(size));
    EXPECT_TRUE(platform.UnmapView(view, size));
    EXPECT_TRUE(platform.CloseMapping(region));
}

TEST_F(Regions, KeepTheirBytesFromViewToView)
{
    void* region = Make(4 * page);
    char* all = View(region, 0, 4 * page);
    char* tail = View(region, 2 * page, 2 * page);
    std::strcpy(all + 2 * page + 7, "seen by both");
    EXPECT_TRUE(platform.UnmapView(all, 4 * page));
    EXPECT_STREQ(tail + 7, "seen by both");

    fs::remove(path); // as a login manager does at logout
    std::ofstream(path) << "namesake";
    char* anew = View(region, 0, 4 * page);
    EXPECT_TRUE(platform.UnmapView(tail, 2 * page));
    EXPECT_TRUE(platform.CloseMapping(region));
    EXPECT_STREQ(anew + 2 * page + 7, "seen by both");
    EXPECT_TRUE(platform.UnmapView(anew, 4 * page));
    EXPECT_TRUE(fs::remove(path)) << "closing took a namesake's name away";
}

TEST_F(Regions, AreRefusedWithTheirCauseAndNothingLeft)
{
    std::ofstream(path) << "mine";
    fs::create_symlink("/dev/shm/nowhere", path + "link");
    const std::pair<std::string, unsigned long> causes[] = {
        {name, EEXIST}, {name + "link", EEXIST}, {"", EINVAL}, {"../shm/x" + name, EINVAL}};
    for (const auto& [refused, cause] : causes) {
        EXPECT_EQ(platform.CreateSharedMapping(refused.c_str(), page, ""), nullptr) << refused;
        EXPECT_EQ(Platform::LastError(), cause) << refused;
    }
    EXPECT_EQ(fs::file_size(path), 4u);
    EXPECT_TRUE(fs::remove(path));
    EXPECT_TRUE(fs::remove(path + "link"));

    void* region = Make(2 * page);
    const std::uint64_t bad[][2] = {
        {0, 0}, {0, 3 * page}, {2 * page, 1}, {page / 2, page}, {0 - page, 2 * page}};
    for (const auto& [offset, size] : bad)
        EXPECT_EQ(View(region, offset, size), nullptr) << offset << ", " << size;
    EXPECT_EQ(Platform::LastError(), static_cast<unsigned long>(EINVAL));
    EXPECT_TRUE(platform.CloseMapping(region));
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
        return ControlGroupLimit(groups.c_str(), write("mounts", line).c_str());
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

} // namespace
