// Hunts a name that leads out of the session or to another's thing, a region that a reader can
// write to, and a file that can be removed while its maker lives.

#include "Platform/LastError.h"
#include "Platform/SystemPlatform.h"
#include "Platform/Windows/System.h"
#include "support/Footprint.h"
#include "support/ThisProcess.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace
{
namespace fs = std::filesystem;
using Platform::Mappings;

constexpr std::uint64_t grain = 65536;

struct Sections : testing::Test {
    ~Sections() override { EXPECT_EQ(Footprint::Now(), before); }

    const std::string name = "NorvaneMemoryBlock_" + std::to_string(OwnId()) + "_1_77";
    Mappings& platform = Platform::SystemMappings();
    const Footprint before = (Platform::SystemProcess().RandomNumber(), Footprint::Now());
};

TEST_F(Sections, AreRefusedWhereTheirNameIsAnothersOrLeadsElsewhere)
{
    const HANDLE event = CreateEventA(nullptr, TRUE, FALSE, name.c_str());
    const std::pair<std::string, unsigned long> causes[] = {
        {name, ERROR_ALREADY_EXISTS}, {"Global\\" + name, ERROR_INVALID_NAME}};
    for (const auto& [refused, cause] : causes) {
        EXPECT_EQ(platform.CreateSharedMapping(refused.c_str(), grain, ""), nullptr) << refused;
        EXPECT_EQ(Platform::LastError(), cause) << refused;
    }
    CloseHandle(event);
}

TEST_F(Sections, CanBeReadByOthersAndNotWrittenTo)
{
    void* const region = platform.CreateSharedMapping(name.c_str(), grain, "");
    void* const reader = platform.OpenMapping(name.c_str(), "");
    ASSERT_NE(reader, nullptr);
    auto* const own = static_cast<char*>(platform.MapView(region, 0, grain));
    auto* const other = static_cast<char*>(platform.MapView(reader, 0, grain));
    own[grain - 1] = 'w';
    EXPECT_EQ(other[grain - 1], 'w');
    DWORD before_that = 0;
    EXPECT_FALSE(VirtualProtect(other, grain, PAGE_READWRITE, &before_that));
    EXPECT_EQ(platform.MapView(reader, 0, 2 * grain), nullptr) << "past the end";
    const HANDLE writer = OpenFileMappingA(FILE_MAP_WRITE, FALSE, name.c_str());
    EXPECT_EQ(writer, nullptr) << "nobody else may write";
    if (writer != nullptr)
        CloseHandle(writer);
    EXPECT_TRUE(platform.UnmapView(own, grain));
    EXPECT_TRUE(platform.UnmapView(other, grain));
    EXPECT_TRUE(platform.CloseMapping(region));
    EXPECT_TRUE(platform.CloseMapping(reader));
}

TEST_F(Sections, OverFilesKeepThemAsLongAsTheirMakerLives)
{
    const TempFolder folder;
    const std::string path = folder.path + "\\TempFile" + name;
    Mappings::FileFault fault = Mappings::FileFault::None;
    void* const region = platform.CreateMappingOverFile(path.c_str(), name.c_str(), grain, &fault);
    ASSERT_NE(region, nullptr);
    EXPECT_EQ(fs::file_size(path), grain);
    EXPECT_EQ(platform.CreateMappingOverFile(path.c_str(), "x", grain, &fault), nullptr);
    EXPECT_EQ(fault, Mappings::FileFault::File);
    EXPECT_EQ(platform.CreateMappingOverFile((path + "2").c_str(), name.c_str(), grain, &fault),
              nullptr);
    EXPECT_EQ(fault, Mappings::FileFault::Mapping);
    EXPECT_FALSE(fs::exists(path + "2"));
    EXPECT_FALSE(platform.RemoveDeadFile(path.c_str()));
    EXPECT_EQ(platform.CreatorOf(path.c_str(), 1), Mappings::Creator::Running);
    EXPECT_TRUE(platform.CloseMapping(region));
    EXPECT_EQ(platform.CreatorOf(path.c_str(), OwnId()), Mappings::Creator::Ended);
    EXPECT_TRUE(platform.RemoveDeadFile(path.c_str()));
    EXPECT_FALSE(fs::exists(path));
}
} // namespace
