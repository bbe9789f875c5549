// Hunts, with real second and third processes: a byte that differs on the other side, a region
// that goes while somebody reads it or stays when nobody does, a reader that can write, pagers
// that end each other's views, and a lost maker that ends the reader instead of a call.

#include "Mem/Mem_MemInfo.h"
#include "Zor/Zor_Buffer.h"
#include "support/Children.h"
#include "support/Footprint.h"
#include "support/Leftovers.h"
#include "support/Mem_TestAccess.h"
#include "support/PagerWorld.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <thread>

#include <sys/mman.h>
#include <sys/socket.h>

namespace
{
/// Four pieces with bytes of their own: three on one region, one on another.
struct Pieces {
    static constexpr unsigned sizes[] = {1000, 5, 7000, 100000};

    explicit Pieces(const char* from, MEM_MemPager* by = MEM_MemPager::GetHandle()) : pager(by)
    {
        Zor_iBuffer in(from, 4096);
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
    bool HoldAnew() { return (pager->ClearCache(), Map()) && Hold() && Unmap(); }
    volatile char* At(unsigned n) const { return static_cast<volatile char*>(all[n].Ptr()); }
    MEM_MemPager* pager;
    MEM_PagerInfo all[4];
};

/// Makes the pieces and frees them when told to. Its reader must have nothing left then.
struct Maker {
    Maker()
    {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, line), 0);
        process = StartChild([this] { return Live(MEM_MemPager::GetHandle()); });
        EXPECT_GT(read(line[0], descriptors, sizeof descriptors), 0);
        before = Footprint::Now();
    }
    ~Maker()
    {
        EXPECT_EQ(Mem_TestAccess::Broken(*MEM_MemPager::GetHandle()), nullptr);
        EXPECT_EQ(Footprint::Now(), before);
        End(0);
        EXPECT_EQ(close(line[0]) + close(line[1]), 0);
    }
    int Live(MEM_MemPager* pager) const
    {
        TestConfiguration::Scope small_regions;
        MEM_PagerInfo pieces[4];
        Zor_oBuffer out;
        for (unsigned n = 0; n < 4; ++n) {
            CHILD_CHECK(pager->Allocate(Pieces::sizes[n], &pieces[n], 64) == 0);
            for (unsigned at = 0; at < Pieces::sizes[n]; ++at)
                static_cast<char*>(pieces[n].Ptr())[at] = Pieces::Byte(n * 77777 + at);
            pager->StreamMemInfo(pieces[n], out);
        }
        CHILD_CHECK(write(line[1], out.Bytes().data(), out.Bytes().size()) > 0);
        return static_cast<int>(recv(line[1], nullptr, 0, 0));
    }
    void End(int signal) // once more does nothing
    {
        kill(process, signal);
        shutdown(line[0], SHUT_WR);
        EXPECT_EQ(EndOfChild(process), -signal);
    }
    int line[2];
    pid_t process;
    char descriptors[4096];
    Footprint before;
};

TEST(SharedPieces, AreReadToTheLastByteThroughAllThatAViewCanMeet)
{
    Maker maker;
    Pieces pieces(maker.descriptors);
    EXPECT_TRUE(pieces.Map() && pieces.Hold() && pieces.Unmap());
    EXPECT_EQ(Footprint::Now().maps, maker.before.maps + 4); // an anchor and a view each
    EXPECT_TRUE(pieces.Map() && pieces.Hold() && pieces.Unmap());
    EXPECT_GT(pieces.pager->ClearCache(), 108005u);
    EXPECT_EQ(Footprint::Now().maps, maker.before.maps + 2);
    EXPECT_TRUE(pieces.HoldAnew() && pieces.all[0].Map() == 0);
} // one region mapped, the other cached: so they are freed

// By a second process, and by a third one of another user.
TEST(SharedPieces, CanBeReadButNotWritten)
{
    Maker maker;
    for (const uid_t user : {getuid(), uid_t{65534}})
        EXPECT_EQ(-SIGSEGV, InChild([&] {
            CHILD_CHECK(setuid(user) == 0 || geteuid() != 0);
            Pieces pieces(maker.descriptors);
            CHILD_CHECK(pieces.HoldAnew() && pieces.Map());
            void* const page = pieces.all[3].GetMemInfoPtr()->Owner()->Ptr();
            CHILD_CHECK(mprotect(page, 4096, PROT_READ | PROT_WRITE) != 0);
            signal(SIGSEGV, SIG_DFL); // no sanitizer's
            *pieces.At(3) = 0;
            return 0;
        }));
}

// A maker takes its names with it, or leaves them to whoever comes by.
TEST(SharedPieces, OutliveTheirMakerIfTheyWereMapped)
{
    for (const int signal : {0, SIGKILL})
        for (const bool mapped_first : {false, true}) {
            Maker maker;
            Pieces pieces(maker.descriptors);
            LogCapture log(3);
            EXPECT_TRUE(!mapped_first || pieces.HoldAnew());
            maker.End(signal);
            const bool there = mapped_first || signal == SIGKILL;
            EXPECT_EQ(pieces.HoldAnew(), there);
            EXPECT_EQ(log.Size() == 0, there);
            const std::string names = "NorvaneMemoryBlock_" + std::to_string(maker.process) + "_";
            RemoveDeadMappings(names, "/var/tmp");
            EXPECT_EQ(pieces.HoldAnew(), there);
            std::ranges::for_each(pieces.all, &MEM_PagerInfo::Release);
            EXPECT_FALSE(Pieces(maker.descriptors).Map()) << signal;
        }
}

TEST(SharedPieces, AreHeldByBothPagersApart)
{
    Maker maker;
    Pieces pieces(maker.descriptors);
    std::thread other([&] { // comes and goes in every way while the first one reads
        for (int n = 0; n < 300; ++n) {
            Pieces its(maker.descriptors, MEM_MemPager::GetHandleForMP());
            EXPECT_TRUE(its.Map() && its.Hold() && (n % 2 == 0 || its.Unmap()));
            EXPECT_TRUE(n % 4 != 1 || its.pager->ClearCache() > 0);
        }
    });
    for (int n = 0; n < 300; ++n)
        EXPECT_TRUE(pieces.Map() && pieces.Hold() && pieces.Unmap());
    other.join();
}
} // namespace
