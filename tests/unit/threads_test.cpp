// Several threads on the same pieces: hunts races, counts that get lost between threads, locks
// taken against their order, and a child of a threaded process that inherits a held lock.

#include "Mem/Mem_MemPager.h"
#include "support/Children.h"
#include "support/Mem_TestAccess.h"
#include "support/PagerWorld.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

namespace
{
constexpr unsigned kPieces = 24;
constexpr unsigned kSize = 40000;

/// Pieces of both pagers, stamped with their number, that all threads copy their handles from.
struct Shared {
    Shared()
    {
        for (unsigned i = 0; i < kPieces; ++i) {
            EXPECT_EQ(PagerOf(i)->Allocate(kSize, &originals[i], 0), 0);
            std::memset(originals[i].Ptr(), static_cast<int>(i), kSize);
            originals[i].Unmap();
        }
    }
    static MEM_MemPager* PagerOf(unsigned piece)
    {
        return piece < kPieces / 2 ? MEM_MemPager::GetHandle() : MEM_MemPager::GetHandleForMP();
    }
    MEM_PagerInfo originals[kPieces];
};

/// One thread's life: handles of its own on the shared pieces, and pieces of its own.
class Worker
{
public:
    Worker(const Shared& shared, unsigned seed) : m_shared(shared), m_random(seed) {}

    bool Run(int steps)
    {
        bool good = true;
        for (int step = 0; step < steps; ++step)
            good = Step() && good;
        return good;
    }

private:
    unsigned Below(unsigned bound) { return static_cast<unsigned>(m_random() % bound); }

    static bool Holds(const MEM_PagerInfo& info, unsigned stamp)
    {
        const auto* bytes = static_cast<const unsigned char*>(info.Ptr());
        return bytes != nullptr && bytes[0] == stamp && bytes[kSize - 1] == stamp;
    }

    bool Step()
    {
        const unsigned piece = Below(kPieces);
        MEM_PagerInfo info = m_shared.originals[piece];
        switch (Below(8)) {
        case 0:
            return Together(piece < kPieces / 2 ? 0 : kPieces / 2);
        case 1:
            return OwnPiece(piece);
        case 2:
            Shared::PagerOf(piece)->ClearCache();
            return true;
        case 3:
            info.Cache();
            return info.ReleaseIfUnmapped(true, false) != MEM_INVALID;
        default:
            return MapNested(info, piece);
        }
    }

    bool MapNested(MEM_PagerInfo& info, unsigned piece)
    {
        bool good = info.Map() == 0 && info.Map() == 0;
        MEM_PagerInfo copy = info;
        good = good && Holds(copy, piece);
        info.Unmap();
        copy.Unmap();
        good = good && Holds(info, piece);
        while (info.Ptr() != nullptr)
            info.Unmap();
        return good;
    }

    /// Five handles of one pager with overlaps, in a guard of their own half of the time.
    bool Together(unsigned first)
    {
        std::vector<MEM_PagerInfo> infos;
        std::vector<MEM_PagerInfo*> array;
        std::vector<unsigned> pieces;
        for (int i = 0; i < 5; ++i)
            pieces.push_back(first + Below(kPieces / 2));
        for (const unsigned piece : pieces)
            infos.emplace_back(&m_shared.originals[piece], nullptr);
        for (MEM_PagerInfo& info : infos)
            array.push_back(&info);
        MEM_MemPager* const pager = Shared::PagerOf(first);
        if (Below(2) == 0) {
            Mem_PagerInfoVecLockGuard guard(pager, array.data(), 5);
            return MapAll(pager, array, pieces);
        }
        return MapAll(pager, array, pieces);
    }

    static bool MapAll(MEM_MemPager* pager, std::vector<MEM_PagerInfo*>& array,
                       const std::vector<unsigned>& pieces)
    {
        bool good = pager->MapMemPagerInfoVec(array.data(), 5) == 0;
        for (std::size_t i = 0; i < 5; ++i)
            good = good && Holds(*array[i], pieces[i]);
        pager->UnmapMemPagerInfoVec(array.data(), 5);
        return good;
    }

    bool OwnPiece(unsigned piece)
    {
        MEM_PagerInfo own;
        if (Shared::PagerOf(piece)->Allocate(1 + Below(70000), &own, 0) != 0)
            return false;
        std::memset(own.Ptr(), 1, own.GetAllocatedSize());
        return own.Unmap() == 0 && Shared::PagerOf(piece)->Free(own) == 0;
    }

    const Shared& m_shared;
    std::mt19937 m_random;
};

class PagerThreads : public testing::Test
{
protected:
    void SetUp() override { TestConfiguration::cache_limit = 5 * 65536; }
    static void ExpectWhole()
    {
        for (MEM_MemPager* pager : {MEM_MemPager::GetHandle(), MEM_MemPager::GetHandleForMP()})
            EXPECT_EQ(Mem_TestAccess::Broken(*pager), nullptr);
    }
    TestConfiguration::Scope m_configuration;
};

TEST_F(PagerThreads, MixAllOperationsOnSharedPieces)
{
    {
        LogCapture quiet(3);
        Shared shared;
        std::atomic<int> good = 0;
        std::vector<std::thread> threads;
        for (unsigned seed = 0; seed < 4; ++seed)
            threads.emplace_back([&, seed] { good += Worker(shared, seed).Run(1500) ? 1 : 0; });
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_EQ(good, 4);
        EXPECT_EQ(quiet.Size(), 0u);
        ExpectWhole();
        for (const MEM_PagerInfo& info : shared.originals) {
            EXPECT_EQ(Mem_TestAccess::State(info)->ref_count, 1);
            EXPECT_EQ(Mem_TestAccess::State(info)->map_count, 0);
        }
    }
    Mem_Status status;
    MEM_MemPager::GetHandle()->GetCurrentStatus(status);
    EXPECT_EQ(status.blocks_count, 0);
}

TEST_F(PagerThreads, ForkWhileOthersWorkAndLetTheChildGoOn)
{
    LogCapture quiet(3);
    Shared shared;
    std::atomic<bool> enough = false;
    std::thread worker([&] {
        for (Worker busy(shared, 1); !enough;)
            busy.Run(10);
    });
    for (unsigned i = 0; i < 20; ++i)
        EXPECT_EQ(InChild([&] { return Worker(shared, i).Run(50) ? 0 : 1; }), 0);
    enough = true;
    worker.join();
    ExpectWhole();
}
} // namespace
