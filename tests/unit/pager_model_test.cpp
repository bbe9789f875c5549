// Lives of the real pager beside a model of maps and lists: hunts totals that drift, blocks in
// the wrong state, a queue in the wrong order, counts of handles that disagree, ids given twice,
// bytes lost over an eviction, and anything that a failed mapping leaves behind.

#include "Mem/Mem_MemInfo.h"
#include "Mem/Mem_MemPager.h"
#include "Mem/Mem_ShmmHeap.h"
#include "support/FailingPlatform.h"
#include "support/Footprint.h"
#include "support/Mem_TestAccess.h"
#include "support/PagerWorld.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <list>
#include <map>
#include <memory>
#include <random>

namespace
{
struct ModelBlock {
    unsigned int size;
    int pieces = 0;
    int m_ref = 0;
    int stat = 1;
};

struct ModelPiece {
    int block;
    unsigned int size;
    unsigned char stamp;
    int handles = 0;
    int mappings = 0;
};

/// What a pager is said to do, in the plainest form.
struct Model {
    std::map<int, ModelBlock> blocks;
    std::deque<int> queue;
    int next_id = 0;

    unsigned long long Bytes(bool cached_only) const
    {
        unsigned long long sum = 0;
        for (const auto& [id, block] : blocks)
            sum += block.stat == 2 || (block.stat == 0 && !cached_only) ? block.size : 0;
        return sum;
    }
    void Dequeue(int id) { queue.erase(std::remove(queue.begin(), queue.end(), id), queue.end()); }
    void ClearCache()
    {
        for (auto& [id, block] : blocks)
            block.stat = block.stat == 2 ? 1 : block.stat;
        queue.clear();
    }
    void BlockMapped(int id)
    {
        Dequeue(id);
        blocks.at(id).stat = 0;
        ++blocks.at(id).m_ref;
    }
    void BlockUnmapped(int id)
    {
        ModelBlock& block = blocks.at(id);
        if (--block.m_ref != 0)
            return;
        if (Bytes(false) > TestConfiguration::cache_limit)
            for (unsigned long long freed = 0; freed < block.size; queue.pop_front()) {
                if (queue.empty()) {
                    block.stat = 1;
                    return;
                }
                blocks.at(queue.front()).stat = 1;
                freed += blocks.at(queue.front()).size;
            }
        queue.push_back(id);
        block.stat = 2;
    }
    void PieceFreed(int id)
    {
        if (--blocks.at(id).pieces != 0)
            return;
        Dequeue(id);
        blocks.erase(id);
        next_id = blocks.empty() ? 0 : next_id;
    }
};

/// One pager and its model, driven by the same random steps.
class Life
{
public:
    Life(ShmmHeap* heap, unsigned seed) : m_random(seed), m_pager(Mem_TestAccess::MakePager(heap))
    {
    }
    ~Life()
    {
        m_hands.clear();
        EXPECT_EQ(Mem_TestAccess::Broken(*m_pager), nullptr);
        EXPECT_EQ(Mem_TestAccess::Blocks(*m_pager).Length(), 0);
        EXPECT_EQ(Status().total_mapped + Status().local_pieces_size, 0u);
    }

    void Step()
    {
        const unsigned what = Below(100);
        if (what < 18 || m_hands.empty())
            Allocate();
        else if (what < 24)
            CopyHandle();
        else if (what < 54)
            Map();
        else if (what < 82)
            Unmap();
        else if (what < 85)
            Cache();
        else if (what < 88)
            MapTogether();
        else if (what < 94)
            Release();
        else if (what < 96)
            FreeDirectly();
        else if (what < 98)
            ClearCache();
        else
            TestConfiguration::cache_limit = Below(12) * 65536 + Below(2);
    }

    void Check() const
    {
        ASSERT_EQ(Mem_TestAccess::Broken(*m_pager), nullptr);
        ASSERT_EQ(Status().total_mapped, m_model.Bytes(false));
        ASSERT_EQ(Status().total_cached, m_model.Bytes(true));
        ASSERT_EQ(Mem_TestAccess::QueueOrder(*m_pager),
                  std::vector<int>(m_model.queue.begin(), m_model.queue.end()));
        ASSERT_EQ(Status().blocks_count, static_cast<int>(m_model.blocks.size()));
        unsigned long long pieces = 0;
        for (const auto& piece : m_pieces)
            pieces += piece.block >= 0 ? piece.size : 0;
        ASSERT_EQ(Status().local_pieces_size, pieces);
        for (const auto& [id, block] : m_model.blocks) {
            const RegisteredBlock& real = Mem_TestAccess::Blocks(*m_pager).At(id);
            ASSERT_EQ(real.ref, block.pieces) << id;
            ASSERT_EQ(real.m_ref, block.m_ref) << id;
            ASSERT_EQ(real.stat, block.stat) << id;
        }
        for (const Hand& hand : m_hands)
            CheckHand(hand);
    }

private:
    struct Hand {
        MEM_PagerInfo info;
        ModelPiece* piece = nullptr;
        int mappings = 0;
    };
    using HandAt = std::list<Hand>::iterator;

    unsigned Below(unsigned bound) { return static_cast<unsigned>(m_random() % bound); }
    HandAt Any()
    {
        return std::next(m_hands.begin(), Below(static_cast<unsigned>(m_hands.size())));
    }
    Mem_Status Status() const
    {
        Mem_Status status;
        m_pager->GetCurrentStatus(status);
        return status;
    }

    void CheckHand(const Hand& hand) const
    {
        const bool gone = hand.piece->block < 0;
        ASSERT_EQ(hand.info.Block(), hand.piece->block);
        ASSERT_EQ(Mem_TestAccess::State(hand.info)->map_count, hand.piece->mappings);
        ASSERT_EQ(Mem_TestAccess::State(hand.info)->ref_count, hand.piece->handles);
        ASSERT_EQ(hand.info.GetAllocatedSize(), hand.piece->size);
        if (gone)
            return;
        ASSERT_EQ(hand.info.Ptr() != nullptr, hand.mappings > 0);
        ASSERT_EQ(hand.info.Size(), hand.mappings > 0 ? hand.piece->size : 0);
        const auto* bytes = static_cast<const unsigned char*>(hand.info.Ptr());
        for (unsigned at = 0; bytes != nullptr && at < hand.piece->size; at += 997)
            ASSERT_EQ(bytes[at], hand.piece->stamp);
        ASSERT_TRUE(bytes == nullptr || bytes[hand.piece->size - 1] == hand.piece->stamp);
    }

    /// How many mapping or creating calls in a row fail during the next operation.
    int Failures() { return Below(8) == 0 ? static_cast<int>(1 + Below(2)) : 0; }

    void Allocate()
    {
        static const unsigned sizes[] = {1,    64,    1000,  8191,  8192,
                                         8193, 30000, 65536, 65537, 200000};
        const unsigned size = sizes[Below(10)];
        const int alignment = static_cast<int>(Below(3) * 64);
        const int failures = Failures();
        const unsigned kind = Below(2) == 0 ? FailingPlatform::Create : FailingPlatform::View;
        MEM_PagerInfo info;
        int result;
        bool fired;
        {
            FailingPlatform failing(kind, failures > 0 ? 1 : 1000000, failures);
            result = m_pager->Allocate(size, &info, alignment, 0, Below(2));
            fired = failing.Fired();
        }
        if (fired)
            m_model.ClearCache();
        ASSERT_EQ(result, fired && failures == 2 ? -1 : 0);
        if (result != 0) {
            ASSERT_FALSE(info.IsValid());
            return;
        }
        Adopt(info, size, alignment);
    }

    void Adopt(const MEM_PagerInfo& info, unsigned size, int alignment)
    {
        const int id = info.Block();
        if (m_model.blocks.count(id) == 0) {
            ASSERT_EQ(id, m_model.next_id++);
            m_model.blocks[id] = {Mem_TestAccess::Blocks(*m_pager).At(id).owner->Size()};
        }
        ++m_model.blocks.at(id).pieces;
        m_model.BlockMapped(id);
        const auto stamp = static_cast<unsigned char>(m_random());
        std::memset(info.Ptr(), stamp, size);
        if (alignment != 0) {
            ASSERT_EQ(reinterpret_cast<std::uintptr_t>(info.Ptr()) % unsigned(alignment), 0u);
        }
        m_pieces.push_back({id, size, stamp, 1, 1});
        m_hands.emplace_back();
        m_hands.back().info = info; // takes a mapping of its own; the other's ends with `info`
        m_hands.back().piece = &m_pieces.back();
        m_hands.back().mappings = 1;
    }

    void CopyHandle()
    {
        Hand& from = *Any();
        const bool mapped = Below(2) == 0;
        m_hands.emplace_back();
        Hand& hand = m_hands.back();
        if (mapped)
            hand.info = from.info;
        else
            hand.info.GetUnmappedInfo(from.info);
        hand.piece = from.piece;
        hand.mappings = mapped && from.piece->mappings > 0 ? 1 : 0;
        hand.piece->handles += 1;
        hand.piece->mappings += hand.mappings;
    }

    void Map()
    {
        Hand& hand = *Any();
        const bool real_map = hand.piece->block >= 0 && hand.piece->mappings == 0 &&
                              m_model.blocks.at(hand.piece->block).stat == 1;
        const int failures = Failures();
        FailingPlatform failing(FailingPlatform::View, failures > 0 ? 1 : 1000000, failures);
        if (hand.piece->block < 0 && hand.piece->mappings == 0) {
            ASSERT_THROW(hand.info.Map(), RWBoundsErr);
            return;
        }
        const int result = hand.info.Map();
        if (real_map && failures > 0)
            m_model.ClearCache();
        ASSERT_EQ(result, real_map && failures == 2 ? -1 : 0);
        if (result != 0)
            return;
        CountMap(hand);
    }

    /// Up to four handles, with repetitions and gone ones, all mapped or none.
    void MapTogether()
    {
        std::vector<Hand*> hands(Below(5));
        std::vector<MEM_PagerInfo*> infos;
        for (Hand*& hand : hands)
            infos.push_back(&(hand = &*Any())->info);
        const auto all = static_cast<int>(infos.size());
        const auto gone = std::find_if(hands.begin(), hands.end(), [](const Hand* hand) {
            return hand->piece->block < 0 && hand->piece->mappings == 0;
        });
        for (auto hand = hands.begin(); hand != gone; ++hand)
            CountMap(**hand);
        if (gone != hands.end()) {
            ASSERT_THROW(m_pager->MapMemPagerInfoVec(infos.data(), all), RWBoundsErr);
        } else {
            ASSERT_EQ(m_pager->MapMemPagerInfoVec(infos.data(), all), 0);
            if (Below(2) == 0)
                return;
            Check();
            m_pager->UnmapMemPagerInfoVec(infos.data(), all);
        }
        for (auto hand = hands.begin(); hand != gone; ++hand)
            CountUnmap(**hand);
    }

    void CountMap(Hand& hand)
    {
        if (hand.piece->mappings == 0)
            m_model.BlockMapped(hand.piece->block);
        ++hand.piece->mappings;
        ++hand.mappings;
    }

    void CountUnmap(Hand& hand)
    {
        --hand.mappings;
        if (--hand.piece->mappings == 0)
            m_model.BlockUnmapped(hand.piece->block);
    }

    void Unmap()
    {
        Hand& hand = *Any();
        if (hand.mappings == 0) {
            ASSERT_EQ(hand.info.Unmap(), -1);
            return;
        }
        if (hand.piece->block < 0 && hand.piece->mappings == 1) {
            ASSERT_THROW(hand.info.Unmap(), RWBoundsErr);
            return;
        }
        ASSERT_EQ(hand.info.Unmap(), 0);
        CountUnmap(hand);
    }

    void Cache()
    {
        Hand& hand = *Any();
        const int failures = Failures();
        FailingPlatform failing(FailingPlatform::View, failures > 0 ? 1 : 1000000, failures);
        if (m_model.Bytes(false) > TestConfiguration::cache_limit) {
            ASSERT_EQ(hand.info.Cache(), -1);
            return;
        }
        if (hand.piece->block < 0) {
            ASSERT_THROW(hand.info.Cache(), RWBoundsErr);
            return;
        }
        ModelBlock& block = m_model.blocks.at(hand.piece->block);
        const bool fails = block.stat == 1 && failures > 0;
        ASSERT_EQ(hand.info.Cache(), fails ? -1 : 0);
        if (block.stat == 1 && !fails) {
            block.stat = 2;
            m_model.queue.push_back(hand.piece->block);
        }
    }

    void Release()
    {
        const HandAt hand = Any();
        ModelPiece& piece = *hand->piece;
        piece.mappings -= hand->mappings; // the block isn't told
        if (--piece.handles == 0 && piece.block >= 0) {
            m_model.PieceFreed(piece.block);
            piece.block = -1;
        }
        m_hands.erase(hand);
    }

    void FreeDirectly()
    {
        const HandAt hand = Any();
        ASSERT_EQ(m_pager->Free(hand->info), 0);
        if (hand->piece->block >= 0)
            m_model.PieceFreed(hand->piece->block);
        hand->piece->block = -1;
    }

    void ClearCache()
    {
        const unsigned long long cached = m_model.Bytes(true);
        ASSERT_EQ(m_pager->ClearCache(), cached);
        m_model.ClearCache();
    }

    std::mt19937 m_random;
    std::unique_ptr<MEM_MemPager> m_pager;
    Model m_model;
    std::list<ModelPiece> m_pieces;
    std::list<Hand> m_hands;
};

TEST(PagerModel, TwoPagersOnOneHeapLiveLikeTheirModels)
{
    LogCapture quiet(3);
    const Footprint before = Footprint::Now();
    for (unsigned seed = 1; seed <= 25; ++seed) {
        SCOPED_TRACE(seed);
        TestConfiguration::Scope configuration;
        Memory_ShmmHeap heap;
        Life first(&heap, seed);
        Life second(&heap, seed + 1000);
        for (int step = 0; step < 400; ++step) {
            SCOPED_TRACE(step);
            Life& life = step % 3 == 0 ? second : first;
            life.Step();
            life.Check();
            if (testing::Test::HasFatalFailure())
                return;
        }
    }
    EXPECT_EQ(Footprint::Now(), before);
}
} // namespace
