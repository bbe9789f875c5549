// What every system promises of a mapping: hunts bytes that are lost from view to view, a name that
// is taken over or leads elsewhere, a view past the end, and a failure that leaves something.

#include "Platform/SystemPlatform.h"
#include "support/Footprint.h"
#include "support/ThisProcess.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

namespace
{
using Platform::Mappings;

struct Mapped : testing::Test {
    ~Mapped() override { EXPECT_EQ(Footprint::Now(), before); }

    char* View(void* mapping, std::uint64_t offset, std::uint64_t size)
    {
        return static_cast<char*>(platform.MapView(mapping, offset, size));
    }

    const std::string name = "NorvaneMemoryBlock_" + std::to_string(OwnId()) + "_1_78";
    Mappings& platform = Platform::SystemMappings();
    const std::uint64_t grain = platform.AllocationGranularity();
    const Footprint before = (Platform::SystemProcess().RandomNumber(), Footprint::Now());
};

TEST_F(Mapped, BytesStayFromViewToView)
{
    void* const made = platform.CreateSharedMapping(name.c_str(), 4 * grain, "");
    char* const all = View(made, 0, 4 * grain);
    EXPECT_EQ(std::count(all, all + 4 * grain, 0), static_cast<std::ptrdiff_t>(4 * grain));
    char* const tail = View(made, 2 * grain, 2 * grain);
    std::strcpy(all + 2 * grain + 7, "seen by both");
    EXPECT_TRUE(platform.UnmapView(all, 4 * grain));
    EXPECT_STREQ(tail + 7, "seen by both");
    char* const anew = View(made, 0, 4 * grain);
    EXPECT_TRUE(platform.UnmapView(tail, 2 * grain));
    EXPECT_TRUE(platform.CloseMapping(made));
    EXPECT_STREQ(anew + 2 * grain + 7, "seen by both");
    EXPECT_TRUE(platform.UnmapView(anew, 4 * grain));
    EXPECT_EQ(platform.OpenMapping(name.c_str(), ""), nullptr);
}

TEST_F(Mapped, NamesAndViewsThatCannotBeAreRefused)
{
    using enum Mappings::Cause;
    void* const made = platform.CreateSharedMapping(name.c_str(), 2 * grain, "");
    const std::pair<std::string, Mappings::Cause> causes[] = {
        {name, NameExists}, {"", Other}, {"../" + name, Other}, {"../shm/x" + name, Other}};
    for (const auto& [refused, cause] : causes) {
        EXPECT_EQ(platform.CreateSharedMapping(refused.c_str(), grain, ""), nullptr) << refused;
        EXPECT_EQ(platform.LastCause(), cause) << refused;
    }
    const std::uint64_t bad[][2] = {
        {0, 0}, {0, 3 * grain}, {2 * grain, 1}, {grain / 2, grain}, {0 - grain, 2 * grain}};
    for (const auto& [offset, size] : bad)
        EXPECT_EQ(platform.MapView(made, offset, size), nullptr) << offset << ", " << size;
    EXPECT_EQ(platform.LastCause(), Other);
    EXPECT_TRUE(platform.CloseMapping(made));
}
} // namespace
