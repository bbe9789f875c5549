#ifndef SUPPORT_THREADSLIFE_H
#define SUPPORT_THREADSLIFE_H

#include "Mem/Mem_MemPager.h"
#include "support/Mem_TestAccess.h"
#include "support/PagerWorld.h"

#include <atomic>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <optional>
#include <random>
#include <thread>
#include <vector>

inline constexpr unsigned kPieces = 24; // half of them in each pager

/// Every other piece shares its block with others of its pager.
inline unsigned SizeOf(unsigned piece)
{
    return piece % 2 == 0 ? 40000 : 3000;
}

inline MEM_MemPager* PagerOf(unsigned piece)
{
    return piece < kPieces / 2 ? MEM_MemPager::GetHandle() : MEM_MemPager::GetHandleForMP();
}

/// Pieces of both pagers, stamped with their number, that all threads copy their handles from.
struct Shared {
    Shared()
    {
        for (unsigned i = 0; i < kPieces; ++i) {
            EXPECT_EQ(PagerOf(i)->Allocate(SizeOf(i), &pieces[i], 0), 0);
            std::memset(pieces[i].Ptr(), static_cast<int>(i), SizeOf(i));
            pieces[i].Unmap();
        }
    }
    mutable MEM_PagerInfo pieces[kPieces]; // all threads map by them, too
};

inline bool Holds(const MEM_PagerInfo& info, unsigned stamp)
{
    const auto* bytes = static_cast<const unsigned char*>(info.Ptr());
    return bytes != nullptr && bytes[0] == stamp && bytes[SizeOf(stamp) - 1] == stamp;
}

inline bool MapNested(MEM_PagerInfo& info, unsigned piece)
{
    const bool mapped = info.Map() == 0 && info.Map() == 0;
    MEM_PagerInfo copy = info;
    const bool good = mapped && info.Unmap() == 0 && Holds(info, piece) && Holds(copy, piece);
    copy.Unmap();
    while (info.Ptr() != nullptr) // a handle that was copied from a mapped one had its own mapping
        info.Unmap();
    return good;
}

inline bool OwnPiece(unsigned size, MEM_MemPager* pager)
{
    MEM_PagerInfo own;
    if (pager->Allocate(size, &own, 0) != 0)
        return false;
    std::memset(own.Ptr(), 1, size);
    return own.Unmap() == 0 && pager->Free(own) == 0;
}

inline bool Together(const Shared& shared, unsigned piece, unsigned other, bool guarded)
{
    MEM_PagerInfo infos[3], *array[] = {&infos[0], &infos[1], &infos[2]};
    for (int i = 0; i < 3; ++i)
        infos[i].GetUnmappedInfo(shared.pieces[i == 1 ? other : piece]);
    MEM_MemPager* const pager = PagerOf(piece);
    std::optional<Mem_PagerInfoVecLockGuard> guard;
    if (guarded)
        guard.emplace(pager, array, 3);
    const bool good = pager->MapMemPagerInfoVec(array, 3) == 0 && Holds(infos[0], piece) &&
                      Holds(infos[1], other) && Holds(infos[2], piece);
    pager->UnmapMemPagerInfoVec(array, 3);
    return good;
}

inline bool Step(const Shared& shared, std::mt19937& random)
{
    const auto below = [&](unsigned end) { return static_cast<unsigned>(random() % end); };
    const unsigned piece = below(kPieces), kind = below(8), half = kPieces / 2;
    MEM_PagerInfo info = shared.pieces[piece];
    if (kind == 0)
        return Together(shared, piece, piece / half * half + below(half), below(2) == 0);
    if (kind == 1)
        return OwnPiece(1 + below(70000), PagerOf(piece));
    if (kind == 2)
        PagerOf(piece)->ClearCache();
    if (MEM_PagerInfo& of_all = shared.pieces[piece]; kind > 3)
        return of_all.Map() == 0 && MapNested(info, piece) && of_all.Unmap() == 0;
    info.Cache();
    return info.ReleaseIfUnmapped(true, false) != MEM_INVALID;
}

inline bool Live(const Shared& shared, unsigned seed, int steps)
{
    for (std::mt19937 random(seed); steps > 0 && Step(shared, random); --steps) {
    }
    return steps == 0;
}

/// Has four threads live on the same pieces while `meanwhile` runs. Then each piece and each count
/// has to be as it was.
inline void LiveTogether(const std::function<void(const Shared&)>& meanwhile)
{
    TestConfiguration::Scope configuration;
    TestConfiguration::cache_limit = 3 * 65536;
    LogCapture quiet(3);
    Shared shared;
    std::atomic<int> good = 0;
    std::vector<std::jthread> threads;
    for (unsigned seed = 0; seed < 4; ++seed)
        threads.emplace_back([&, seed] { good += Live(shared, seed, 1500) ? 1 : 0; });
    meanwhile(shared);
    threads.clear();
    EXPECT_EQ(good, 4);
    for (MEM_MemPager* pager : {PagerOf(0), PagerOf(kPieces - 1)})
        EXPECT_EQ(Mem_TestAccess::Broken(*pager), nullptr);
    for (const MEM_PagerInfo& info : shared.pieces) {
        EXPECT_EQ(Mem_TestAccess::State(info)->ref_count(), 1);
        EXPECT_EQ(Mem_TestAccess::State(info)->map_count(), 0);
    }
    EXPECT_EQ(quiet.Size(), 0u);
}

#endif
