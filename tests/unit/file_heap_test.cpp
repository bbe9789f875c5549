// Regions out of temp files: hunts a file of the wrong size or where none may be, regions that
// overlap or lose bytes, a file that outlives its last region, and a cleaner that takes what isn't
// a leftover.

#include "Mem/Mem_Inspection.h"
#include "Mem/Mem_ShmmHeap_Windows.h"
#include "support/FailingPlatform.h"
#include "support/Footprint.h"
#include "support/PagerWorld.h"
#include "support/ThisProcess.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <set>
#include <string>

namespace
{
namespace fs = std::filesystem;

constexpr unsigned kRegion = 8454144;

/// A folder and settings of a test's own, and a disk that claims the free space it is told.
class FileHeap : public testing::Test, public ForwardingInspection
{
protected:
    ~FileHeap() override
    {
        MEM_MemoryConfiguration::GetInstance()->SetInstance(nullptr);
        EXPECT_EQ(Footprint::Now(), m_before);
    }
    bool FreeSpace(const char*, double* bytes) override
    {
        *bytes = m_free_mb * 1048576.0;
        return true;
    }
    void Set(unsigned file, unsigned total)
    {
        MEM_MemoryConfiguration_FileHeapParemeters all{m_folder.c_str(), file, total, 512};
        MEM_MemoryConfiguration::GetInstance()->SetFileHeapParmeters(all);
    }
    std::set<std::string> Files() const
    {
        std::set<std::string> names;
        for (const auto& entry : fs::directory_iterator(m_folder))
            names.insert(entry.path().filename().string());
        return names;
    }

    const Footprint m_before = Footprint::Now();
    const TempFolder m_temp;
    const std::string m_folder = m_temp.path;
    double m_free_mb = 100000;
};

TEST_F(FileHeap, MakesFilesAsLargeAsTheLimitsLet)
{
    struct Row {
        double free;
        unsigned request, file, total, made;
    };
    const Row rows[] = {
        {100000, kRegion, 1024, 10240, 1024}, {600, kRegion, 1024, 10240, 88},
        {575, kRegion, 1024, 10240, 0},       {520, kRegion, 1024, 10240, 0},
        {100000, kRegion, 1024, 65, 65},      {100000, 1048576000, 100, 10240, 1001},
        {100000, kRegion, 32, 10240, 0},      {100000, kRegion, 1024, 0, 0},
        {100000, kRegion, 4096, 10240, 0},    {576, kRegion, 4294967294u, 10240, 64},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(testing::Message() << row.free << " " << row.request << " " << row.file);
        LogCapture quiet(3);
        m_free_mb = row.free;
        Set(row.file, row.total);
        Windows_File_ShmmHeap heap;
        BaseInfo* region = nullptr;
        EXPECT_EQ(heap.Allocate(row.request, 0, &region), row.made != 0 ? 0 : -1);
        EXPECT_EQ(Files().size(), row.made != 0 ? 1u : 0u);
        for (const std::string& file : Files())
            EXPECT_EQ(fs::file_size(m_folder + "/" + file) >> 20, row.made);
        if (region != nullptr)
            heap.Free(region);
        EXPECT_TRUE(Files().empty());
    }
}

TEST_F(FileHeap, CleansOnlyWhatTheDeadHaveLeft)
{
    Set(64, 10240);
    Windows_File_ShmmHeap living;
    BaseInfo* region = nullptr;
    ASSERT_EQ(living.Allocate(1, 0, &region), 0);
    std::set<std::string> stay = Files();
    const std::string full = "TempFileNorvaneMemoryBlock_99999999_1_0",
                      own = std::to_string(OwnId());
    for (const std::string& name :
         {std::string("TempFile.txt"), std::string("TempFile_abc"), std::string("TempFile_0_1"),
          std::string("TempFile_2024_report.csv"), std::string("TempFile_7zip"),
          "TempFile_" + own + ".dat", full + ".bak", full + "~", full + "_1", "My" + full}) {
        std::ofstream(m_folder + "/" + name) << "x";
        stay.insert(name);
    }
    // No process has such an id; one has this test's own, but it doesn't hold the file.
    for (const auto& maker : {std::string("99999999"), own})
        std::ofstream(m_folder + "/TempFileNorvaneMemoryBlock_" + maker + "_1_0") << "x";
    for (int start = 0; start < 20; ++start) // each has a few milliseconds for it
        Windows_File_ShmmHeap().crash_recovery();
    EXPECT_EQ(Files(), stay);
    living.Free(region);
}

TEST_F(FileHeap, LeavesNothingWhereverItFails)
{
    using Failing = FailingPlatform;
    Set(64, 10240);
    const auto fails_at = [this](unsigned kind, int n) {
        LogCapture quiet(0);
        Windows_File_ShmmHeap heap;
        const Failing failing(kind, n);
        BaseInfo* region = nullptr;
        const int refused = heap.Allocate(kRegion, 0, &region);
        EXPECT_EQ(refused, failing.Fired() ? -1 : 0);
        if (refused == 0) {
            auto* const view = static_cast<BaseMapInfo*>(region);
            const int unmapped = view->Map();
            EXPECT_EQ(unmapped, failing.Fired() ? -1 : 0);
            EXPECT_EQ(view->Unmap(), unmapped);
            heap.Free(region);
        }
        const bool stays = kind == Failing::Remove && failing.Fired();
        EXPECT_EQ(Files().size(), stays ? 1u : 0u);
        return failing.Fired();
    };
    for (const unsigned kind : {Failing::Create, Failing::View, Failing::Unview, Failing::Close,
                                Failing::Remove, Failing::Ask}) {
        SCOPED_TRACE(kind);
        int n = 1;
        if (kind == Failing::Unview && mapped_files_stay)
            continue;
        for (; fails_at(kind, n); ++n)
            Windows_File_ShmmHeap().crash_recovery();
        EXPECT_GT(n, 1);
    }
}

TEST_F(FileHeap, IsCleanedLaterOfWhatCannotGoNow)
{
    using Failing = FailingPlatform;
    Set(64, 10240);
    const std::string dead = m_folder + "/TempFileNorvaneMemoryBlock_99999999_1_0";
    const auto recover = [] { Windows_File_ShmmHeap().crash_recovery(); };
    const auto clean = [this] { Mem_Inspection::Clean(false, m_folder.c_str()); };
    const std::tuple<unsigned, int, std::function<void()>> cases[] = {{Failing::List, 1, recover},
                                                                      {Failing::Remove, 1, recover},
                                                                      {Failing::List, 1, clean},
                                                                      {Failing::Remove, 1, clean},
                                                                      {Failing::Ask, 99, clean}};
    for (const auto& [kind, count, way] : cases) {
        SCOPED_TRACE(kind);
        std::ofstream(dead) << "x";
        if (const Failing failing(kind, 1, count); true) {
            way();
            EXPECT_TRUE(failing.Fired());
            EXPECT_TRUE(fs::exists(dead));
        }
        way();
        EXPECT_FALSE(fs::exists(dead));
    }
}

TEST(UniqueNames, AreToldFromNearMisses)
{
    const RWCString first = "TempFile", unique = BaseMapInfo::CreateUniqueName();
    EXPECT_TRUE(BaseMapInfo::IsUniqueName(unique));
    EXPECT_TRUE(
        BaseMapInfo::IsTempFileName(BaseMapInfo::TempFileName(first, unique).data(), first));

    const std::string prefix = "NorvaneMemoryBlock_";
    for (const char* const numbers : {"4242_17_3", "1_140737353996160_0", "7_1_-2147483648"}) {
        EXPECT_TRUE(BaseMapInfo::IsUniqueName((prefix + numbers).c_str())) << numbers;
        EXPECT_TRUE(BaseMapInfo::IsTempFileName(("TempFile" + prefix + numbers).c_str(), first));
    }
    for (const char* const numbers :
         {"", "1", "1_2", "1_2_", "1_2_3_4", "1_2_3 ", "1_2_3.bak", "1_2_x", "1__3", "0_2_3",
          "-1_2_3", "01_2_3", "1_02_3", "1_2_-", "1_2_03", "1_2_+3", "1_2_123456789012345678901"}) {
        EXPECT_FALSE(BaseMapInfo::IsUniqueName((prefix + numbers).c_str())) << numbers;
        EXPECT_FALSE(BaseMapInfo::IsTempFileName(("TempFile" + prefix + numbers).c_str(), first));
    }
    const std::string good = prefix + "1_2_3";
    for (const std::string& name :
         {std::string(), good, "Temp" + good, "tempFile" + good, "TempFile_" + good,
          "TempFileTempFile" + good, "/TempFile" + good})
        EXPECT_FALSE(BaseMapInfo::IsTempFileName(name.c_str(), first)) << name;
    EXPECT_FALSE(BaseMapInfo::IsUniqueName(RWCString("NorvaneMemoryBlock_1_2_3\0", 25)));
}
} // namespace
