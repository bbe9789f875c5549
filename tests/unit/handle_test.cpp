// The corners that random lives seldom meet: hunts a wrong answer for an empty, freed or shared
// handle, sizes at the edges of 32 bits, blocks of the wrong size class, group or pager, ids that
// start over too early, and settings that don't arrive.

#include "Mem/Mem_MemInfo.h"
#include "Mem/Mem_MemPager.h"
#include "Mem/Mem_ShmmHeap_Windows.h"
#include "support/FailingPlatform.h"
#include "support/Footprint.h"
#include "support/Mem_TestAccess.h"
#include "support/PagerWorld.h"

#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <utility>

namespace
{
class Pagers : public testing::Test
{
protected:
    MEM_PagerInfo Piece(unsigned size, unsigned group = 0, MEM_MemPager* from = nullptr)
    {
        MEM_PagerInfo info;
        MEM_MemPager& of = from != nullptr ? *from : *pager;
        EXPECT_EQ(of.Allocate(size, &info, 0, 0, group), 0) << size;
        return info;
    }
    /// Where a piece stands: its block's number, counted from the first ever, and its offset.
    std::pair<std::string, unsigned> Place(const MEM_PagerInfo& info)
    {
        return {info.GetMemInfoPtr()->Owner()->Name().data(), info.GetMemInfoPtr()->Offset()};
    }

    const Footprint before = Footprint::Now();
    TestConfiguration::Scope configuration;
    Memory_ShmmHeap heap;
    std::unique_ptr<MEM_MemPager> pager = Mem_TestAccess::MakePager(&heap);
};

TEST_F(Pagers, RefuseWhatCannotBeAndLoseNothing)
{
    LogCapture log(5);
    MEM_PagerInfo info = Piece(1000);
    EXPECT_EQ(pager->Allocate(0, &info, 0), -1);
    EXPECT_FALSE(info.IsValid());
    EXPECT_EQ(log.Count(3, "MEM_MemPager::Allocate|"), 1);
    EXPECT_EQ(info.GetAllocatedSize(), 1000u);
    EXPECT_EQ(info.Block(), -1);
    EXPECT_EQ(info.Map() + info.Unmap() + info.Cache(), -3);
    EXPECT_EQ(pager->Free(info), 0);
    EXPECT_EQ(info.ReleaseIfUnmapped(true, true), MEM_INVALID);

    // Far beyond the machine: the platform refuses, and both tries are told of.
    for (const unsigned size : {1u << 30, (1u << 30) + 1, 4294967295u}) {
        FailingPlatform refuses(FailingPlatform::Create, 1, 2);
        EXPECT_EQ(pager->Allocate(size, &info, -1), -1);
        EXPECT_FALSE(info.IsValid());
    }
    EXPECT_EQ(log.Count(5, "SwapMapInfo::AllocateSwap|Allocate: Couldn't allocate shared memory "
                           "from swap (Details: CreateFileMapping failed, size 4096.0MB. Errno "
                           "[28]).\n"),
              2);
    EXPECT_EQ(log.Count(2, "MEM_MemPager::PrintSharedMemoryStatus|"), 3);
}

TEST_F(Pagers, GiveIdsInOrderAndStartOverOnlyWhenEmpty)
{
    MEM_PagerInfo first = Piece(60000);
    MEM_PagerInfo second = Piece(60000);
    EXPECT_EQ(first.Block() * 10 + second.Block(), 1);
    MEM_PagerInfo copy = first;
    EXPECT_EQ(pager->Free(first), 0);
    EXPECT_EQ(pager->Free(copy), 0); // the same piece: gone already
    MEM_PagerInfo third = Piece(60000);
    EXPECT_EQ(third.Block(), 2);
    EXPECT_EQ(first.Unmap(), 0); // the copy holds the other mapping
    EXPECT_THROW(copy.Unmap(), RWBoundsErr);
    EXPECT_THROW(copy.Cache(), RWBoundsErr);
    second.Release();
    third.Release();
    EXPECT_EQ(Piece(60000).Block(), 0);
}

TEST_F(Pagers, ShareABlockOnlyWithTheirLike)
{
    const auto other_pager = Mem_TestAccess::MakePager(&heap);
    MEM_PagerInfo small = Piece(1000);
    const std::string block = Place(small).first;
    MEM_PagerInfo next = Piece(1000);
    EXPECT_EQ(Place(next), std::make_pair(block, 1000u));
    // The threshold itself still fits a block of small pieces, which is its alone from then on.
    MEM_PagerInfo edge = Piece(8192);
    EXPECT_EQ(Place(edge), std::make_pair(block, 2000u));
    EXPECT_NE(Place(Piece(1000)).first, block);
    edge.Release();
    EXPECT_EQ(Place(Piece(8192)), std::make_pair(block, 2000u));

    const MEM_PagerInfo large = Piece(8193); // above the threshold
    const MEM_PagerInfo group = Piece(1000, 7);
    const MEM_PagerInfo other = Piece(1000, 0, other_pager.get());
    const std::string names[] = {block, Place(large).first, Place(group).first, Place(other).first};
    EXPECT_EQ(std::set<std::string>(std::begin(names), std::end(names)).size(), 4u);

    std::ostringstream status;
    heap.PrintStatus(status);
    EXPECT_NE(status.str().find(" Source heap: Windows_Swap\n group_id: 7 always mapped: 0\n"),
              std::string::npos);
    EXPECT_NE(status.str().find("    non fix block total size 0.25MB total use: 0.0116282MB "),
              std::string::npos);
}

TEST_F(Pagers, AnswerForEachWayOfLeaving)
{
    MEM_PagerInfo one = Piece(100);
    EXPECT_EQ(one.ReleaseIfUnmapped(true, true), MEM_STILL_MAPPED);
    MEM_PagerInfo two = one;
    MEM_PagerInfo three;
    three.GetUnmappedInfo(one);
    EXPECT_EQ(three.Ptr(), nullptr);
    EXPECT_EQ(three.ReleaseIfUnmapped(false, false), MEM_STILL_MAPPED);
    EXPECT_EQ(three.ReleaseIfUnmapped(true, false), MEM_DETACHED_MAPPED);
    two.Unmap();
    one.Unmap();
    EXPECT_EQ(one.ReleaseIfUnmapped(false, false), MEM_STILL_SHARED);
    MEM_PagerInfo four = one;
    EXPECT_EQ(four.ReleaseIfUnmapped(true, true), MEM_DETACHED_SHARED);
    EXPECT_EQ(one.ReleaseIfUnmapped(true, true), MEM_RELEASED);
    EXPECT_EQ(two.Map(), 0);
    EXPECT_EQ(two.Unmap(), 0);
    EXPECT_EQ(two.ReleaseIfUnmapped(false, false), MEM_RELEASED);
    EXPECT_TRUE(Mem_TestAccess::HasNoBlocks(heap));
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

TEST(Configuration, TakesWhatItIsGiven)
{
    auto* const settings = MEM_MemoryConfiguration::GetInstance();
    EXPECT_EQ(settings->BaseBlockSize(), 8454144u);
    settings->SetBaseBlockSize(0);
    EXPECT_EQ(settings->BaseBlockSize(), 65536u);
    settings->SetBaseBlockSize(4294967295u);
    EXPECT_EQ(settings->BaseBlockSize(), 65536u);
    settings->SetCacheSize(4096);
    EXPECT_EQ(settings->HeapCacheInBytes(), 1ull << 32);
    MEM_MemoryConfiguration_FileHeapParemeters parameters;
    parameters.MaxTotalSpaceInMb = 7;
    settings->SetFileHeapParmeters(parameters);
    EXPECT_EQ(settings->FileHeap_MaxTotalSpaceInMb(), 7u);
    EXPECT_EQ(settings->FileHeap_FileSizeInMb(), 1024u);
    MEM_MemoryConfiguration moved(std::move(*settings));
    EXPECT_EQ(moved.FileHeap_MaxTotalSpaceInMb(), 7u);
    EXPECT_EQ(settings->FileHeap_TempPath().length(), 0u);
    settings->SetInstance(settings);
    settings->SetInstance(nullptr);
    EXPECT_EQ(MEM_MemoryConfiguration::GetInstance()->BaseBlockSize(), 8454144u);
}

TEST(Descriptor, MovesAForeignPieceUpToItsAlignment)
{
    struct Foreign : SwapMapInfo {
        Foreign() : SwapMapInfo("elsewhere", 4096) {}
        bool Local() override { return false; }
    } owner;
    MEM_MemInfo piece(&owner, 64, nullptr);
    char* const base = reinterpret_cast<char*>(std::uintptr_t{1} << 20);
    for (const unsigned offset : {10u, 64u, 127u}) {
        piece.SetChunk({100, offset});
        piece.UpdatePtrByBase(base);
        EXPECT_EQ(piece.Ptr(), base + (offset + 63) / 64 * 64);
        EXPECT_EQ(piece.HandleOffset(), (offset + 63) / 64 * 64);
        piece.UpdatePtrByBase(nullptr);
        EXPECT_EQ(piece.Ptr(), nullptr);
    }
}
} // namespace
