// Regions that the system or the settings refuse: hunts a refusal without its limit, one that
// leaves something or bars the next request, and a planted name that becomes one.

#include "Mem/Mem_MemInfo.h"
#include "Mem/Mem_MemPager.h"
#include "support/Child.h"
#include "support/FailingPlatform.h"
#include "support/Footprint.h"
#include "support/PagerWorld.h"
#include "support/ThisProcess.h"

#include <gtest/gtest.h>

#include <list>
#include <sstream>

namespace
{
constexpr unsigned MiB = 1 << 20;

/// Counts the files that are made.
struct Makings final : ForwardingMappings {
    void* CreateMappingOverFile(const char* path, const char* name, std::uint64_t size,
                                FileFault* fault) override
    {
        ++count;
        return m_real.CreateMappingOverFile(path, name, size, fault);
    }
    int count = 0;
};

/// What a child is told: the size of its files and of its regions, how many files it makes, the
/// folder they go to, and the limit that is told when they are refused.
struct Told {
    explicit Told(const std::string& argument)
    {
        std::istringstream in(argument);
        in >> file_mb >> region_mb >> total_mb >> files >> folder;
        std::getline(in >> std::ws, limit);
    }
    unsigned file_mb, region_mb, total_mb;
    int files;
    std::string folder, limit;
};

CHILD_ROLE(IsRefusedOnceItsFilesAreFull)
{
    const Told told(argument);
    const Makings makings;
    LogCapture log(3);
    MEM_MemoryConfiguration::GetInstance()->SetBaseBlockSize(told.region_mb);
    MEM_MemoryConfiguration::GetInstance()->SetSwapMaxSizeInMb(0);
    MEM_MemoryConfiguration_FileHeapParemeters files{told.folder.c_str(), told.file_mb,
                                                     told.total_mb, 0};
    MEM_MemoryConfiguration::GetInstance()->SetFileHeapParmeters(files);
    MEM_MemPager* const pager = MEM_MemPager::GetHandle();
    std::list<MEM_PagerInfo> pieces;
    while (pager->Allocate(30 * MiB, &pieces.emplace_back(), 0) == 0)
        CHILD_CHECK(pieces.size() < 100);
    pieces.pop_back();
    CHILD_CHECK(makings.count == told.files);
    CHILD_CHECK(log.Count(3, "MEM_MemPager::Allocate|\tA limit stands in the way: " + told.limit) ==
                1);
    if (pieces.empty())
        return 0;
    const Footprint full = Footprint::Now();
    CHILD_CHECK(pager->Allocate(30 * MiB, &pieces.emplace_back(), 0) == -1);
    CHILD_CHECK(Footprint::Now() == full);
    pieces.pop_front();
    return pager->Allocate(30 * MiB, &pieces.back(), 0) == 0 ? 0 : 2;
}

TEST(Refused, RegionsNameTheirLimitAndLeaveNothing)
{
    const TempFolder folder;
    for (const std::string& told :
         {"4097 8 10240 0 " + folder.path +
              " temp files of less than 4096 MB, where one of 4097 MB",
          "64 70 10240 0 " + folder.path + " a temp file of 64 MB, where a region takes 73465856",
          "64 8 128 2 " + folder.path +
              " temp files of 128 MB (FileHeap_MaxTotalSpaceInMb), 0 MB left"}) {
        EXPECT_EQ(Child("IsRefusedOnceItsFilesAreFull", told).End(), 0) << told;
        EXPECT_TRUE(std::filesystem::is_empty(folder.path)) << told;
    }
}

CHILD_ROLE(MeetsPlantedNames)
{
    Platform::Mappings& platform = Platform::Mappings::Get();
    for (const unsigned swap_mb : {1500u, 0u}) {
        const std::string next = BaseMapInfo::CreateUniqueName().data();
        const std::size_t number = next.rfind('_') + 1;
        std::list<void*> planted;
        for (int ahead = 1; ahead <= 100; ++ahead) {
            const int taken = std::stoi(next.substr(number)) + ahead;
            const std::string name = next.substr(0, number) + std::to_string(taken);
            planted.push_back(platform.CreateSharedMapping(name.c_str(), 1, ""));
            CHILD_CHECK(planted.back() != nullptr);
        }
        Configure(swap_mb, argument);
        std::list<MEM_PagerInfo> pieces;
        for (int count = 0; count < 20; ++count)
            CHILD_CHECK(MEM_MemPager::GetHandle()->Allocate(8 * MiB, &pieces.emplace_back(), 0) ==
                        0);
        for (void* const one : planted)
            CHILD_CHECK(platform.CloseMapping(one));
    }
    return 0;
}

TEST(Refused, NamesArePlantedInVain)
{
    const TempFolder folder;
    EXPECT_EQ(Child("MeetsPlantedNames", folder.path).End(), 0);
}
} // namespace
