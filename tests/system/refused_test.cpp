// Regions that the settings or others' names are in the way of: hunts a refusal without its limit,
// a file that is made for nothing, and a planted name that becomes a refusal.

#include "Mem/Mem_MemInfo.h"
#include "Mem/Mem_MemPager.h"
#include "support/Child.h"
#include "support/PagerWorld.h"
#include "support/ThisProcess.h"

#include <gtest/gtest.h>

#include <list>
#include <sstream>

namespace
{
constexpr unsigned MiB = 1 << 20;

/// Is told the size of its files and of its regions, a folder, and the limit in the way.
CHILD_ROLE(NeedsAFileThatCannotBe)
{
    std::istringstream told(argument);
    unsigned file_mb = 0, region_mb = 0;
    std::string folder, limit;
    std::getline(told >> file_mb >> region_mb >> folder >> std::ws, limit);
    const LogCapture log(3);
    Configure(0, folder, file_mb);
    MEM_MemoryConfiguration::GetInstance()->SetBaseBlockSize(region_mb);
    MEM_PagerInfo piece;
    CHILD_CHECK(MEM_MemPager::GetHandle()->Allocate(1000, &piece, 0) == -1);
    CHILD_CHECK(std::filesystem::is_empty(folder));
    CHILD_CHECK(log.Count(3, "MEM_MemPager::Allocate|\tA limit stands in the way: " + limit) == 1);
    return 0;
}

TEST(Refused, RegionsNameTheirLimit)
{
    const TempFolder folder;
    for (const std::string& told :
         {"4097 8 " + folder.path + " temp files of less than 4096 MB, where one of 4097 MB is due",
          "64 70 " + folder.path + " a temp file of 64 MB, where a region takes 73465856 bytes"})
        EXPECT_EQ(Child("NeedsAFileThatCannotBe", told).End(), 0) << told;
}

CHILD_ROLE(MeetsPlantedNames)
{
    const std::string next = BaseMapInfo::CreateUniqueName().data();
    const std::size_t number = next.rfind('_') + 1;
    for (int ahead = 1; ahead <= 500; ++ahead) {
        const std::string planted =
            next.substr(0, number) + std::to_string(std::stoi(next.substr(number)) + ahead);
        CHILD_CHECK(Platform::Mappings::Get().CreateSharedMapping(planted.c_str(), 1, "") !=
                    nullptr);
    }
    for (const unsigned swap_mb : {1500u, 0u}) {
        Configure(swap_mb, argument);
        std::list<MEM_PagerInfo> pieces(20);
        for (MEM_PagerInfo& piece : pieces)
            CHILD_CHECK(MEM_MemPager::GetHandle()->Allocate(8 * MiB, &piece, 0) == 0);
    }
    return 0;
}

TEST(Refused, NamesArePlantedInVain)
{
    const TempFolder folder;
    EXPECT_EQ(Child("MeetsPlantedNames", folder.path).End(), 0);
}
} // namespace
