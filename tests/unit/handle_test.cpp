// What random lives don't meet: hunts a wrong answer for an empty handle, sizes at the edges of
// 32 bits, blocks of the wrong size class, group or pager, trimming at the wrong time, and
// settings that don't arrive.

#include "Mem/Mem_MemInfo.h"
#include "Mem/Mem_MemPager.h"
#include "Mem/Mem_ShmmHeap_Windows.h"
#include "support/FailingPlatform.h"
#include "support/Mem_TestAccess.h"
#include "support/PagerWorld.h"

#include <gtest/gtest.h>

#include <iomanip>
#include <iostream>
#include <locale>
#include <set>
#include <sstream>

namespace
{
class Pagers : public testing::Test
{
protected:
    MEM_PagerInfo Piece(unsigned size, unsigned group = 0, unsigned always_mapped = 0)
    {
        MEM_PagerInfo info;
        EXPECT_EQ(pager->Allocate(size, &info, 0, always_mapped, group), 0) << size;
        return info;
    }
    /// Where a piece stands: its block's name and its offset.
    static std::pair<std::string, unsigned> Place(const MEM_PagerInfo& info)
    {
        return {info.GetMemInfoPtr()->Owner()->Name().data(), info.GetMemInfoPtr()->Offset()};
    }

    TestConfiguration::Scope configuration;
    Memory_ShmmHeap heap;
    std::unique_ptr<MEM_MemPager> pager = Mem_TestAccess::MakePager(&heap);
};

TEST_F(Pagers, PrintPlainDecimalsOnWhateverStreamTheHostHas)
{
    struct Commas : std::numpunct<char> {
        char do_thousands_sep() const override { return ','; }
        std::string do_grouping() const override { return "\3"; }
    };
    const MEM_PagerInfo info = Piece(70000);
    std::ostringstream out;
    std::streambuf* const before = std::cout.rdbuf(out.rdbuf());
    const std::locale language = std::cout.imbue({std::locale(), new Commas});
    std::cout << std::hex << std::setfill('*');
    std::cout.width(30);
    const LogCapture log(2);
    pager->PrintDebugStatus();
    EXPECT_EQ(log.Size(), 3u) << "a line for each block, between two";
    EXPECT_NE(out.str().find("Total Mapped = 70000 "), std::string::npos) << out.str();
    EXPECT_EQ(std::cout.width(), 30);
    out.str("");
    std::cout << 70000; // as the host had it
    EXPECT_EQ(out.str(), "************************11,170");
    std::cout << std::dec << std::setfill(' ');
    std::cout.imbue(language);
    std::cout.rdbuf(before);
}

TEST_F(Pagers, RefuseWhatCannotBe)
{
    LogCapture log(5);
    MEM_PagerInfo info = Piece(1000);
    EXPECT_EQ(pager->Allocate(0, &info, 0), -1);
    EXPECT_EQ(log.Count(3, "MEM_MemPager::Allocate|"), 1);
    EXPECT_FALSE(info.IsValid());
    EXPECT_EQ(info.GetAllocatedSize(), 1000u);
    EXPECT_EQ(info.Block(), -1);
    EXPECT_EQ(info.Map(), -1);
    EXPECT_EQ(info.Unmap(), -1);
    EXPECT_EQ(info.Cache(), -1);
    EXPECT_EQ(pager->Free(info), 0);
    EXPECT_EQ(info.ReleaseIfUnmapped(true, true), MEM_INVALID);

    for (const bool with_piece : {false, true}) {
        log.Clear();
        MEM_MemInfo piece;
        MEM_PagerInfo(12345, pager.get(), with_piece ? &piece : nullptr, false).Release();
        EXPECT_EQ(log.Count(3, "MEM_PagerInfo::Release|"), with_piece ? 1 : 0);
    }
    log.Clear();

    // Far beyond the machine: the platform refuses, and both tries are told of.
    for (const unsigned size : {1u << 30, (1u << 30) + 1, 4294967295u}) {
        FailingPlatform refuses(FailingPlatform::Create, 1, 2);
        EXPECT_EQ(pager->Allocate(size, &info, -1), -1);
    }
    const std::string error = std::to_string(FailingPlatform::full_error);
    EXPECT_EQ(log.Count(5, "SwapMapInfo::AllocateSwap|Allocate: Couldn't allocate shared memory "
                           "from swap (Details: CreateFileMapping failed, size 4096.0MB. Errno [" +
                               error + "]).\n"),
              2);
    EXPECT_EQ(log.Count(2, "MEM_MemPager::PrintSharedMemoryStatus|"), 3) << "told more than once";
}

TEST_F(Pagers, ShareABlockOnlyWithTheirLike)
{
    const MEM_PagerInfo small = Piece(1000), next = Piece(1000);
    const std::string block = Place(small).first;
    EXPECT_EQ(Place(next), std::pair(block, 1000u));
    EXPECT_TRUE(next.GetMemInfoPtr()->IsUsed());
    EXPECT_NE(Mem_TestAccess::State(next)->block, nullptr) << "no hit goes without a lock";
    // The threshold itself still fits a block of small pieces, which is its alone from then on.
    MEM_PagerInfo edge = Piece(8192);
    EXPECT_EQ(Place(edge), std::pair(block, 2000u));
    EXPECT_NE(Place(Piece(1000)).first, block);
    edge.Release();
    EXPECT_EQ(Place(Piece(8192)), std::pair(block, 2000u));

    const MEM_PagerInfo others[] = {Piece(8193), Piece(1000), Piece(1000, 7), Piece(1000, 7, 1)};
    std::set names{block};
    for (const MEM_PagerInfo& other : others)
        names.insert(Place(other).first);
    EXPECT_EQ(names.size(), 5u);

    std::ostringstream status;
    heap.PrintStatus(status);
    for (const char* text : {" Source heap: Windows_Swap\n group_id: 7 always mapped: 1\n",
                             "    fix block total size     0.0625MB total use: 0.000953674MB ",
                             "    non fix block total size 0.25MB total use: 0.0116282MB "})
        EXPECT_NE(status.str().find(text), std::string::npos) << text;
}

TEST_F(Pagers, TrimAfterTheSetAmountAndLoseNothing)
{
    TestConfiguration::cache_limit = 0; // every last unmap is a real one
    TestConfiguration::trim_limit = 100000;
    LogCapture log(6);
    MEM_PagerInfo pieces[] = {Piece(60000), Piece(60000), Piece(60000), Piece(60000)};
    static_cast<char*>(pieces[3].Ptr())[59999] = 'x';
    for (int i = 0; i < 3; ++i)
        pieces[i].Unmap();
    EXPECT_EQ(log.Count(6, "MEM_MemPager::ReduceWorkingSet|"), 1); // 65536 each: the second
    EXPECT_EQ(static_cast<char*>(pieces[3].Ptr())[59999], 'x');
    EXPECT_EQ(log.Count(3, "MEM_MemPager::ReduceWorkingSet|"), 0);
}

TEST_F(Pagers, AreLeftByMovedHandlesAsTheyWere)
{
    MEM_PagerInfo first = Piece(1000);
    EXPECT_EQ(first.Map(), 0);
    void* const place = first.Ptr();
    MEM_PagerInfo second = std::move(first);
    EXPECT_FALSE(first.IsValid());
    EXPECT_EQ(second.Ptr(), place);
    MEM_PagerInfo copy = second;
    second = std::move(copy); // on the same piece: nothing happens
    EXPECT_TRUE(copy.IsValid());
    copy = Piece(2000);
    EXPECT_EQ(copy.GetAllocatedSize(), 2000u);
    EXPECT_EQ(second.Unmap(), 0);
    EXPECT_EQ(second.Ptr(), place) << "it holds the second mapping, too";
    EXPECT_EQ(second.Unmap(), 0);
    EXPECT_EQ(second.Ptr(), nullptr);
    static_assert(std::is_nothrow_move_constructible_v<MEM_PagerInfo>);
}

TEST(Configuration, TakesWhatItIsGiven)
{
    auto* const settings = MEM_MemoryConfiguration::GetInstance();
    for (const auto& [mb, bytes] : {std::pair{8u, 8454144u}, {0u, 65536u}, {4294967295u, 65536u}}) {
        settings->SetBaseBlockSize(mb);
        EXPECT_EQ(settings->BaseBlockSize(), bytes);
    }
    settings->SetCacheSize(4096);
    EXPECT_EQ(settings->HeapCacheInBytes(), 1ull << 32);
    settings->SetUnmapWorkingSetLimit(9);
    EXPECT_EQ(settings->UnmapWorkingSetLimit(), 9u);
    MEM_MemoryConfiguration_FileHeapParemeters parameters;
    parameters.MaxTotalSpaceInMb = 7;
    settings->SetFileHeapParmeters(parameters);
    EXPECT_EQ(settings->FileHeap_FileSizeInMb(), 1024u);
    EXPECT_EQ(settings->FileHeap_MaxTotalSpaceInMb(), 7u);
    settings->SetInstance(nullptr);
    EXPECT_EQ(MEM_MemoryConfiguration::GetInstance()->BaseBlockSize(), 8454144u);
}

} // namespace
