// Hunts, with a real second process: a byte that differs on the other side, a region that goes
// while somebody reads it or stays when nobody does, pagers that end each other's views, and a lost
// maker that ends the reader instead of a call.

#include "Mem/Mem_MemInfo.h"
#include "Mem/Mem_MemPager.h"
#include "Zor/Zor_Buffer.h"
#include "support/Child.h"
#include "support/Footprint.h"
#include "support/Leftovers.h"
#include "support/Mem_TestAccess.h"
#include "support/PagerWorld.h"
#include "support/ThisProcess.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iostream>
#include <thread>

namespace
{
/// Four pieces with bytes of their own: three on one region, one on another.
struct Pieces {
    static constexpr unsigned sizes[] = {1000, 5, 7000, 100000};

    explicit Pieces(const std::string& from, MEM_MemPager* by = MEM_MemPager::GetHandle())
        : pager(by)
    {
        Zor_iBuffer in(from.data(), from.size());
        MEM_MemInfo info;
        for (MEM_PagerInfo& piece : all)
            piece = (in >> info, pager->Register(info));
    }
    static char Byte(unsigned at) { return static_cast<char>((at * 2654435761u) >> 11); }
    bool Each(int (MEM_PagerInfo::*call)())
    {
        return std::ranges::all_of(all, [&](MEM_PagerInfo& piece) { return (piece.*call)() == 0; });
    }
    bool Map() { return Each(&MEM_PagerInfo::Map); }
    bool Unmap() { return Each(&MEM_PagerInfo::Unmap); }
    bool Hold() const
    {
        unsigned right = 0;
        for (unsigned n = 0; n < 4; ++n)
            for (unsigned at = 0; at < all[n].Size(); ++at)
                right += At(n)[at] == Byte(n * 77777 + at);
        return right == 108005;
    }
    void ExpectAllBytes()
    {
        EXPECT_TRUE(Map());
        EXPECT_TRUE(Hold());
        EXPECT_TRUE(Unmap());
    }
    void ExpectThereAnew(bool there = true)
    {
        pager->ClearCache();
        if (there)
            ExpectAllBytes();
        else
            EXPECT_FALSE(Map());
    }
    volatile char* At(unsigned n) const { return static_cast<volatile char*>(all[n].Ptr()); }
    MEM_MemPager* pager;
    MEM_PagerInfo all[4];
};

/// Makes the pieces, writes their descriptors, and frees them at the end of its input.
CHILD_ROLE(MakerOfPieces)
{
    const TestConfiguration::Scope small_regions;
    MEM_MemPager* const pager = MEM_MemPager::GetHandle();
    MEM_PagerInfo pieces[4];
    Zor_oBuffer out;
    for (unsigned n = 0; n < 4; ++n) {
        CHILD_CHECK(pager->Allocate(Pieces::sizes[n], &pieces[n], 64) == 0);
        for (unsigned at = 0; at < Pieces::sizes[n]; ++at)
            static_cast<char*>(pieces[n].Ptr())[at] = Pieces::Byte(n * 77777 + at);
        pager->StreamMemInfo(pieces[n], out);
    }
    std::string bytes = out.Bytes();
    bytes.resize(4096);
    std::cout << bytes << std::flush;
    std::cin.get();
    return 0;
}

/// A maker, whose reader must have nothing left when it ends.
struct Maker {
    ~Maker()
    {
        EXPECT_EQ(Mem_TestAccess::Broken(*MEM_MemPager::GetHandle()), nullptr);
        EXPECT_EQ(Footprint::Now(), before);
        if (!ended)
            End();
    }
    void End()
    {
        process.EndInput();
        EXPECT_EQ(process.End(), 0);
        ended = true;
    }
    void Kill()
    {
        process.Kill();
        EXPECT_EQ(process.End(), Child::killed);
        ended = true;
    }
    Child process{"MakerOfPieces"};
    const std::string descriptors = process.Read(4096);
    const Footprint before = Footprint::Now();
    bool ended = false;
};

TEST(SharedPieces, AreReadToTheLastByteThroughAllThatAViewCanMeet)
{
    const long anchors = HasMappingFolder() ? 2 : 0; // beside a view of each region
    Maker maker;
    Pieces pieces(maker.descriptors);
    pieces.ExpectAllBytes();
    EXPECT_EQ(Footprint::Now().maps, maker.before.maps + anchors + 2);
    pieces.ExpectAllBytes();
    EXPECT_GT(pieces.pager->ClearCache(), 108005u);
    EXPECT_EQ(Footprint::Now().maps, maker.before.maps + anchors);
    pieces.ExpectThereAnew();
    EXPECT_EQ(pieces.all[0].Map(), 0);
} // one region mapped, the other cached: so they are freed

// A maker takes its names with it, or leaves them to whoever comes by.
TEST(SharedPieces, OutliveTheirMakerIfTheyWereMapped)
{
    for (const bool is_killed : {false, true})
        for (const bool mapped_first : {false, true}) {
            Maker maker;
            Pieces pieces(maker.descriptors);
            LogCapture log(3);
            if (mapped_first)
                pieces.ExpectThereAnew();
            is_killed ? maker.Kill() : maker.End();
            const bool there = mapped_first || (is_killed && HasMappingFolder());
            pieces.ExpectThereAnew(there);
            EXPECT_EQ(log.Size() == 0, there);
            const std::string process = std::to_string(maker.process.Id());
            RemoveDeadMappings("NorvaneMemoryBlock_" + process + "_", "/var/tmp");
            pieces.ExpectThereAnew(there);
            std::ranges::for_each(pieces.all, &MEM_PagerInfo::Release);
            EXPECT_FALSE(Pieces(maker.descriptors).Map()) << is_killed;
        }
}

/// Registers, maps and reads what the bytes promise. @return whether it could be mapped.
bool IsMapped(const std::string& bytes)
{
    Zor_iBuffer in(bytes.data(), bytes.size());
    MEM_MemInfo info;
    in >> info;
    MEM_PagerInfo piece = MEM_MemPager::GetHandle()->Register(info);
    if (piece.Map() != 0)
        return false;
    const auto* const at = static_cast<volatile char*>(piece.Ptr());
    return (at[0], at[piece.Size() - 1], true);
}

// Another's descriptor with single bits that are wrong, before and beside the true one.
TEST(SharedPieces, AreNotHurtByForgedDescriptors)
{
    Maker maker;
    const LogCapture quiet(0);
    std::size_t mapped = 0;
    const auto forge = [&] {
        for (std::size_t bit = 0; bit < 8 * 120; ++bit) {
            std::string forged = maker.descriptors;
            forged[bit / 8] = static_cast<char>(forged[bit / 8] ^ 1 << bit % 8);
            mapped += IsMapped(forged) ? 1 : 0;
        }
    };
    forge();
    Pieces pieces(maker.descriptors);
    pieces.ExpectAllBytes();
    forge();
    pieces.ExpectAllBytes();
    pieces.ExpectThereAnew();
    EXPECT_GT(mapped, 0u); // a place within the region is no fault that can be seen
}

TEST(SharedPieces, AreHeldByBothPagersApart)
{
    Maker maker;
    Pieces pieces(maker.descriptors);
    std::thread other([&] { // comes and goes in every way while the first one reads
        for (int n = 0; n < 300; ++n) {
            Pieces its(maker.descriptors, MEM_MemPager::GetHandleForMP());
            EXPECT_TRUE(its.Map());
            EXPECT_TRUE(its.Hold());
            if (n % 2 == 1) {
                EXPECT_TRUE(its.Unmap());
            }
            if (n % 4 == 1) {
                EXPECT_GT(its.pager->ClearCache(), 0u);
            }
        }
    });
    for (int n = 0; n < 300; ++n)
        pieces.ExpectAllBytes();
    other.join();
}
} // namespace
