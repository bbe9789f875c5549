// Many processes that are killed beside one that lives: hunts a byte of the living that goes with
// the dead, and a file that is left for good, or is taken from one who lives.

#include "Mem/Mem_Inspection.h"
#include "Mem/Mem_MemPager.h"
#include "Mem/Mem_ShmmHeap_Windows.h"
#include "support/Child.h"
#include "support/PagerWorld.h"
#include "support/ThisProcess.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <iostream>
#include <memory>
#include <vector>

namespace
{
namespace fs = std::filesystem;

/// A region out of a temp file in that folder, full of one byte.
struct FileRegion {
    explicit FileRegion(const std::string& folder)
    {
        MEM_MemoryConfiguration_FileHeapParemeters all{folder.c_str(), 64, 10240, 0};
        MEM_MemoryConfiguration::GetInstance()->SetFileHeapParmeters(all);
        heap = std::make_unique<Windows_File_ShmmHeap>();
        BaseInfo* made = nullptr;
        if (heap->Allocate(65536, 0, &made) == 0)
            info = static_cast<BaseMapInfo*>(made);
    }
    std::unique_ptr<Windows_File_ShmmHeap> heap;
    BaseMapInfo* info = nullptr;
};

/// Has a piece, a region in a file and a view of each, tells so, and waits to be killed.
CHILD_ROLE(IsKilledWithAllItHas)
{
    LogCapture quiet(0);
    const FileRegion region(argument);
    MEM_PagerInfo piece;
    CHILD_CHECK(region.info != nullptr);
    CHILD_CHECK(region.info->Map() == 0);
    CHILD_CHECK(MEM_MemPager::GetHandle()->Allocate(1000, &piece, 0) == 0);
    std::memset(region.info->Ptr(), 'k', 65536);
    std::cout << "r" << std::flush;
    std::cin.get();
    return 0;
}

TEST(Killed, TwoHundredProcessesLeaveNothingAndTakeNothing)
{
    LogCapture quiet(0);
    const TempFolder folder;
    const FileRegion living(folder.path);
    MEM_PagerInfo piece;
    ASSERT_NE(living.info, nullptr);
    ASSERT_EQ(living.info->Map(), 0);
    ASSERT_EQ(MEM_MemPager::GetHandle()->Allocate(100000, &piece, 0), 0);
    std::memset(living.info->Ptr(), 'f', 65536);
    std::memset(piece.Ptr(), 'p', 100000);
    for (int batch = 0; batch < 20; ++batch) {
        std::vector<std::unique_ptr<Child>> children;
        for (int n = 0; n < 10; ++n)
            children.push_back(std::make_unique<Child>("IsKilledWithAllItHas", folder.path));
        for (const auto& child : children)
            ASSERT_EQ(child->Read(1), "r");
        Windows_File_ShmmHeap().crash_recovery(); // while they live
        EXPECT_EQ(std::distance(fs::directory_iterator(folder.path), {}), 11);
        for (const auto& child : children) {
            child->Kill();
            EXPECT_EQ(child->End(), Child::killed);
        }
        EXPECT_EQ(Mem_Inspection::Clean(true, folder.path.c_str()).removals.size(), 10u);
        for (int start = 0; start < 20; ++start) // each has a few milliseconds for it
            Windows_File_ShmmHeap().crash_recovery();
        EXPECT_EQ(std::distance(fs::directory_iterator(folder.path), {}), 1);
    }
    const std::string file(static_cast<const char*>(living.info->Ptr()), 65536);
    const std::string memory(static_cast<const char*>(piece.Ptr()), 100000);
    EXPECT_EQ(file, std::string(65536, 'f'));
    EXPECT_EQ(memory, std::string(100000, 'p'));
    EXPECT_EQ(living.info->Unmap(), 0);
    EXPECT_EQ(living.heap->Free(living.info), 0);
    EXPECT_EQ(std::distance(fs::directory_iterator(folder.path), {}), 0);
}
} // namespace
