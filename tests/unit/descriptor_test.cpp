// Hunts what a descriptor from outside can do to its reader: cut, forged or stale, it must be told
// from a good one before anything is touched, and leave neither a trace nor a lock.

#include "Mem/Mem_MemInfo.h"
#include "Mem/Mem_ShmmHeap.h"
#include "Platform/Mappings.h"
#include "Zor/Zor_Buffer.h"
#include "support/Child.h"
#include "support/FailingNew.h"
#include "support/Footprint.h"
#include "support/Mem_TestAccess.h"
#include "support/PagerWorld.h"
#include "support/ThisProcess.h"

#include <gtest/gtest.h>

#include <cstring>
#include <span>

namespace
{
/// Names of regions of this process: what all begin with, and one.
const std::string own = "NorvaneMemoryBlock_" + std::to_string(OwnId()) + "_1_";
const std::string good = own + "1";

/// Where regions can begin in a mapping, and what the mapping here has.
const unsigned grain = Platform::Mappings::Get().AllocationGranularity();
const unsigned all = 16 * grain;

/// The bytes of a descriptor, true or forged.
std::string Descriptor(unsigned offset, unsigned size, unsigned owner_offset, unsigned owner_size,
                       const std::string& mapping = good, const std::string& name = own + "2")
{
    Zor_oBuffer out;
    out << offset << size << (offset ^ size) << owner_offset << owner_size;
    out.Write64bitHandle(nullptr);
    for (const std::string& text : {mapping, name})
        (out << static_cast<int>(text.size())) << text;
    return out.Bytes();
}
const std::string valid = Descriptor(96, 100, grain, 2 * grain);

MEM_PagerInfo Adopt(MEM_MemPager& pager, const std::string& bytes)
{
    return pager.Register(std::as_bytes(std::span(bytes)));
}

enum Fate { Refused, Unmapped, Mapped };

/// A reader, and a region that another process could have made.
struct Descriptors : testing::Test {
    const Footprint before = Footprint::Now();
    LogCapture log{3};
    Memory_ShmmHeap heap;
    std::unique_ptr<MEM_MemPager> pager = Mem_TestAccess::MakePager(&heap);
    void* region = Platform::Mappings::Get().CreateSharedMapping(good.c_str(), all, "/var/tmp");
    ~Descriptors() override
    {
        EXPECT_NE(region, nullptr);
        EXPECT_TRUE(region == nullptr || Platform::Mappings::Get().CloseMapping(region));
        EXPECT_EQ(Footprint::Now(), before);
    }
    /// The whole life of a piece, read at both ends. Nothing is left of it.
    Fate FateOf(const std::string& bytes)
    {
        log.Clear();
        MEM_PagerInfo piece = Adopt(*pager, bytes);
        const auto fate = static_cast<Fate>(piece.IsValid() + (piece.Map() == 0));
        const auto* const at = static_cast<const volatile char*>(piece.Ptr());
        if (fate != Mapped) {
            EXPECT_GT(log.Size(), 0u) << "nobody is told";
        } else {
            EXPECT_EQ(at[0], 0);
            EXPECT_EQ(at[piece.Size() - 1], 0);
        }
        EXPECT_EQ(pager->Free(piece), 0);
        EXPECT_EQ(Mem_TestAccess::Broken(*pager), nullptr);
        return fate;
    }
};

TEST_F(Descriptors, AreReadWholeOrNotAtAll)
{
    for (std::size_t cut = 0; cut < valid.size(); ++cut)
        EXPECT_EQ(FateOf(valid.substr(0, cut)), Refused) << cut;
    EXPECT_EQ(FateOf(valid + "x"), Mapped);
    for (const std::size_t at :
         {std::size_t{28}, 32 + good.size()}) // where both names' lengths are
        for (const unsigned length : {~0u, 256u, 1u << 31, ~0u >> 1}) {
            std::string bytes = valid + std::string(300, '1');
            std::memcpy(&bytes[at], &length, 4);
            EXPECT_EQ(FateOf(bytes), Refused) << length;
            Zor_iBuffer in(bytes.data(), bytes.size());
            MEM_MemInfo as_it_was;
            in >> as_it_was;
            EXPECT_EQ(as_it_was.Size(), 0u) << length;
        }
}

TEST_F(Descriptors, MustLieInTheRegionAndTheRegionInItsMapping)
{
    const unsigned values[] = {0, 1, grain, all, 1u << 31, ~0u};
    for (const unsigned offset : values)
        for (const unsigned size : values)
            for (const unsigned start : values)
                for (const unsigned length : values) {
                    const std::uint64_t end = std::uint64_t{start} + length;
                    const bool sound = size != 0 && std::uint64_t{offset} + size <= length &&
                                       end <= ~0u && start % grain == 0;
                    const Fate fate = !sound ? Refused : end <= all ? Mapped : Unmapped;
                    EXPECT_EQ(FateOf(Descriptor(offset, size, start, length)), fate);
                }
}

TEST_F(Descriptors, MustBearNamesOfRegions)
{
    for (const std::string& bad :
         {std::string(), std::string(".."), "/dev/shm/" + good, "../" + good, good + "/..", own,
          own + "x", own + "-", "x" + good, good + "_1", own + std::string(21, '1')}) {
        EXPECT_EQ(FateOf(Descriptor(0, 1, 0, 1, bad, good)), Refused) << bad;
        EXPECT_EQ(FateOf(Descriptor(0, 1, 0, 1, good, bad)), Refused) << bad;
    }
}

TEST_F(Descriptors, OfAnotherSystemAreRefusedWithALineAndNeverMisread)
{
    using namespace std::string_literals;
    const std::string linux_name = "NorvaneMemoryBlock_29874_140003114490240_";
    const struct {
        std::string start, mapping, end;
        bool can_be;
    } written[] = {
        // by Linux, also of a file's second region, and by Windows
        {"\xe8\x03\0\0\xf4\x01\0\0\0\0\0\0\0\0\0\0\0\0\x81\0`JTKiU\0\0*\0\0\0"s, linux_name + "0",
         "*\0\0\0"s + linux_name + "0", true},
        {"\0\0\0\0\0\0\x90\0\0\0\0\0\0\x30\x90\0\0\0\x90\0\0\0\0\0\0\0\0\0*\0\0\0"s,
         linux_name + "2", "*\0\0\0"s + linux_name + "4", grain == 4096},
        {"\xe8\x03\0\0\xf4\x01\0\0\0\0\0\0\0\0\0\0\0\0\x81\0\xe0v\xc9\0\0\0\0\0\x1a\0\0\0"s,
         "NorvaneMemoryBlock_32_36_0", "\x1a\0\0\0NorvaneMemoryBlock_32_36_0"s, true}};
    for (const auto& [start, mapping, end, can_be] : written) {
        const std::string bytes = start + mapping + end;
        EXPECT_EQ(FateOf(bytes), can_be ? Unmapped : Refused) << mapping;
        EXPECT_GE(log.Count(3, can_be
                                   ? "StreamedMapInfo::Map|Couldn't open map to non-local memory "
                                     "(Details: OpenFileMapping failed, name " +
                                         mapping
                                   : "MEM_MemPager::Register|Register: Refused a descriptor: "
                                     "there can be no such region"),
                  1);
        // The bytes are whole: what bears that very name here would be read.
        void* const here =
            Platform::Mappings::Get().CreateSharedMapping(mapping.c_str(), 20 << 20, "/var/tmp");
        EXPECT_EQ(FateOf(bytes), can_be ? Mapped : Refused) << mapping;
        EXPECT_TRUE(Platform::Mappings::Get().CloseMapping(here));
    }
}

TEST_F(Descriptors, ShareOneBlockOfWhichTheFirstFixesTheRegion)
{
    MEM_PagerInfo first = Adopt(*pager, valid);
    EXPECT_FALSE(Adopt(*pager, Descriptor(2 * grain - 192, 193, 0, all)).IsValid());
    Zor_oBuffer onward;
    pager->StreamMemInfo(first, onward);
    EXPECT_EQ(onward.Bytes(), valid);
    EXPECT_EQ(first.Map(), 0);

    // Another region takes the name: who holds the old one, keeps it.
    EXPECT_TRUE(Platform::Mappings::Get().CloseMapping(region));
    const auto make = [] {
        return Platform::Mappings::Get().CreateSharedMapping(good.c_str(), all, "/var/tmp");
    };
    region = make();
    if (!HasMappingFolder()) { // there a name lives as long as anybody has what bears it
        EXPECT_EQ(region, nullptr);
        EXPECT_EQ(pager->Free(first), 0);
        region = make();
        return;
    }
    void* const bytes = Platform::Mappings::Get().MapView(region, 0, all);
    std::memset(bytes, 'n', all);
    EXPECT_TRUE(Platform::Mappings::Get().UnmapView(bytes, all));
    for (const char expected : {'\0', 'n'}) {
        MEM_PagerInfo third = Adopt(*pager, valid);
        ASSERT_EQ(third.Map(), 0);
        EXPECT_EQ(*static_cast<char*>(third.Ptr()), expected);
        first.Release();
    }
}

TEST(Pieces, OfOthersAreMovedUpToTheirAlignmentAndOwnOnesNot)
{
    struct Region : MEM_MemInfo {
        bool Local() override { return alignment % 2 == 1; }
        unsigned int HandleOffset() override { return 4096; }
        unsigned alignment = 0;
    } region;
    for (const unsigned alignment : {0u, 4u, 16u, 100u, 101u})
        for (std::uintptr_t base = 4096; base < 4300; ++base) {
            region.alignment = alignment;
            MEM_MemInfo piece(&region, alignment, nullptr);
            piece.SetChunk({10, 7});
            std::uintptr_t wanted = base + 7;
            while (!region.Local() && alignment != 0 && wanted % alignment != 0)
                ++wanted;
            piece.UpdatePtrByBase(reinterpret_cast<void*>(base + 1)); // as mapped before
            piece.UpdatePtrByBase(reinterpret_cast<void*>(base));
            ASSERT_EQ(reinterpret_cast<std::uintptr_t>(piece.Ptr()), wanted) << alignment;
            ASSERT_EQ(piece.HandleOffset(), 4096 + wanted - base) << alignment;
        }
}

TEST_F(Descriptors, ComeBackToTheirMakerInVain)
{
    MEM_MemPager* const pagers[] = {MEM_MemPager::GetHandle(), MEM_MemPager::GetHandleForMP()};
    MEM_PagerInfo piece;
    ASSERT_EQ(pagers[0]->Allocate(1000, &piece, 0), 0);
    Zor_oBuffer out;
    pagers[0]->StreamMemInfo(piece, out);
    for (MEM_MemPager* by : pagers)
        EXPECT_FALSE(Adopt(*by, out.Bytes()).IsValid());
    EXPECT_FALSE(pagers[0]->Register(*piece.GetMemInfoPtr()).IsValid());
}

CHILD_ROLE(MakerOfRegionsInAFile)
{
    const LogCapture log(3);
    MEM_MemPager* const pager = MEM_MemPager::GetHandle();
    MEM_MemoryConfiguration::GetInstance()->SetSwapMaxSizeInMb(0); // regions of one temp file
    MEM_PagerInfo freed, kept;
    CHILD_CHECK(pager->Allocate(10 << 20, &freed, 0) == 0);
    CHILD_CHECK(pager->Allocate(10 << 20, &kept, 0) == 0);
    Zor_oBuffer out;
    pager->StreamMemInfo(freed, out);
    pager->Free(freed);
    CHILD_CHECK(!Adopt(*pager, out.Bytes()).IsValid());
    CHILD_CHECK(log.Count(3, "MEM_MemPager::Register|Register: Refused a descriptor: this process "
                             "made the memory") == 1);
    return pager->Free(kept);
}

TEST(Descriptor, ComesBackToItsMakerTooLate)
{
    EXPECT_EQ(Child("MakerOfRegionsInAFile").End(), 0);
}

TEST_F(Descriptors, LeaveNothingWhenMemoryFailsOnTheWay)
{
    for (unsigned n = 1; n < 100; ++n) {
        try {
            const FailingNew failing(n);
            Adopt(*pager, valid);
        } catch (const std::bad_alloc&) {
        } // an owner that is left would have other bounds than the next
        EXPECT_EQ(FateOf(Descriptor(0, all, 0, all + 1)), Unmapped) << n;
    }
}
} // namespace
