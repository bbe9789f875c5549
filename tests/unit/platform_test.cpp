// Hunts, in one process: regions that aren't reserved, readable or zero; names taken over from
// somebody else, at creation or at closing; views that miss their bytes or lose them with the
// name; causes of failure that clean-up hides; memory limits read from the wrong group.

#include "Platform/Platform.h"
#include "Platform/Posix/MemoryLimits.h"
#include "support/Footprint.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <thread>

#include <sys/stat.h>

namespace
{

namespace fs = std::filesystem;
constexpr std::uint64_t MiB = 1 << 20;

class Regions : public testing::Test
{
protected:
    void TearDown() override { EXPECT_EQ(Footprint::Now(), before); }

    void* Make(std::uint64_t size) { return platform.CreateSharedMapping(name.c_str(), size); }
    char* View(void* region, std::uint64_t offset, std::uint64_t size)
    {
        return static_cast<char*>(platform.MapView(region, offset, size));
    }

    Platform& platform = Platform::Get();
    const std::string name = "NorvaneMemoryBlock_" + std::to_string(getpid()) + "_1_0";
    const std::string path = "/dev/shm/" + name;
    const std::uint64_t page = platform.AllocationGranularity();
    const Footprint before = Footprint::Now();
};

TEST_F(Regions, AreReservedZeroAndReadableByAll)
{
    for (const std::uint64_t size : {std::uint64_t{1}, page + 1, 3 * MiB + 5}) {
        const mode_t umask_before = umask(077);
        void* region = Make(size);
        umask(umask_before);
        struct stat status;
        ASSERT_EQ(lstat(path.c_str(), &status), 0) << size;
        EXPECT_EQ(status.st_mode, mode_t{S_IFREG | 0644});
        EXPECT_EQ(static_cast<std::uint64_t>(status.st_size), size);
        EXPECT_GE(static_cast<std::uint64_t>(status.st_blocks) * 512, size);
        char* view = View(region, 0, size);
        EXPECT_EQ(std::count(view, view + size, 0), static_cast<std::ptrdiff_t>(size));
        EXPECT_TRUE(platform.UnmapView(view, size) && platform.CloseMapping(region));
    }
}

TEST_F(Regions, NeverTakeANameThatIsThere)
{
    std::ofstream(path) << "mine";
    fs::create_symlink(path, path + "link");
    fs::create_symlink("/dev/shm/nowhere", path + "dangling");
    fs::create_directory(path + "folder");
    for (const char* last : {"", "link", "dangling", "folder"}) {
        EXPECT_EQ(platform.CreateSharedMapping((name + last).c_str(), page), nullptr) << last;
        EXPECT_EQ(platform.LastError(), EEXIST) << last;
    }
    for (const std::string& bad : {std::string(), std::string(".."), "../shm/x" + name, name + "/"})
        EXPECT_TRUE(!platform.CreateSharedMapping(bad.c_str(), page) &&
                    platform.LastError() == EINVAL)
            << bad;
    EXPECT_EQ(fs::file_size(path), 4u);
    for (const char* last : {"link", "dangling", "folder", ""})
        EXPECT_TRUE(fs::remove(path + last)) << last;
}

TEST_F(Regions, KeepTheirBytesFromViewToView)
{
    void* region = Make(4 * page);
    char* all = View(region, 0, 4 * page);
    char* tail = View(region, 2 * page, 2 * page);
    ASSERT_TRUE(all != nullptr && tail != nullptr);
    std::strcpy(all + 2 * page + 7, "seen by both");
    EXPECT_TRUE(platform.UnmapView(all, 4 * page));
    EXPECT_STREQ(tail + 7, "seen by both");

    fs::remove(path); // as a login manager does at logout
    std::ofstream(path) << "namesake";
    char* anew = View(region, 0, 4 * page);
    ASSERT_NE(anew, nullptr);
    EXPECT_TRUE(platform.UnmapView(tail, 2 * page) && platform.CloseMapping(region));
    EXPECT_STREQ(anew + 2 * page + 7, "seen by both");
    EXPECT_TRUE(platform.UnmapView(anew, 4 * page));
    EXPECT_TRUE(fs::remove(path)) << "closing took a namesake's name away";
}

TEST_F(Regions, FailWithTheirCauseAndNothingLeft)
{
    void* region = Make(2 * page);
    const std::uint64_t bad[][2] = {
        {0, 0}, {0, 3 * page}, {2 * page, 1}, {page / 2, page}, {0 - page, 2 * page}};
    for (const auto& [offset, size] : bad)
        EXPECT_EQ(View(region, offset, size), nullptr) << offset << ", " << size;
    EXPECT_EQ(platform.LastError(), EINVAL);
    EXPECT_EQ(platform.CreateSharedMapping("huge", ~std::uint64_t{0}), nullptr);
    std::thread([&] { EXPECT_FALSE(platform.UnmapView(&region, 0)); }).join();
    errno = ENOTTY;
    EXPECT_TRUE(platform.CloseMapping(region));
    EXPECT_EQ(platform.LastError(), EFBIG) << "neither another thread nor success changes it";
}

std::uint64_t ResidentPages()
{
    std::uint64_t all = 0, resident = 0;
    std::ifstream("/proc/self/statm") >> all >> resident;
    return resident;
}

TEST_F(Regions, GiveTheirPagesBackButNotTheirBytes)
{
    void* region = Make(8 * MiB);
    char* view = View(region, 0, 8 * MiB);
    std::memset(view, 'x', 8 * MiB);
    struct Two final : Platform::Views {
        bool Next(void*& next, std::uint64_t& size) override
        {
            next = first_byte--; // no page begins at the first: a failure must not end the walk
            size = 8 * MiB;
            return left-- > 0;
        }
        char* first_byte = nullptr;
        int left = 2;
    } two;
    two.first_byte = view + 1;
    const std::uint64_t resident = ResidentPages();
    EXPECT_FALSE(platform.TrimWorkingSet(two));
    EXPECT_LT(ResidentPages(), resident - 7 * MiB / page);
    EXPECT_EQ(std::count(view, view + 8 * MiB, 'x'), static_cast<std::ptrdiff_t>(8 * MiB));
    EXPECT_TRUE(platform.UnmapView(view, 8 * MiB) && platform.CloseMapping(region));
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
    write("one/a/b/memory.limit_in_bytes", "9223372036854771712");
    write("one/a/memory.limit_in_bytes", "5000");
    write("one/memory.limit_in_bytes", "6000");
    write("two/c/d/memory.max", "max");
    write("two/c/memory.max", "7000");

    const auto limit = [&](const char* top, const char* folder, const char* type) {
        const std::string line = std::string("35 31 0:32 ") + top + ' ' + (root / folder).string() +
                                 " rw shared:9 - " + type + " x rw";
        const std::string filler(3 * 8192, 'f'); // longer than any buffer
        return ControlGroupLimit(groups.c_str(),
                                 write("mounts", filler + '\n' + line + ",memory\n").c_str());
    };
    EXPECT_EQ(limit("/pod", "one", "cgroup"), 5000u);
    EXPECT_EQ(limit("/of_host", "one", "cgroup"), 6000u);
    EXPECT_EQ(limit("/", "two", "cgroup2"), 7000u);
    EXPECT_EQ(limit("/", "one", "tmpfs"), ~std::uint64_t{0});
    EXPECT_EQ(ControlGroupLimit("/nowhere", "/nowhere"), ~std::uint64_t{0});
    fs::remove_all(root);
}

} // namespace
