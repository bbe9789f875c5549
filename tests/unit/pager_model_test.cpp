// Lives of the real pager beside a model of maps and lists, in which platform calls fail now and
// then: hunts totals that drift, blocks in the wrong state, a queue in the wrong
// order, counts of handles that disagree, ids given twice or out of order, wrong answers for
// shared and freed handles, bytes lost over an eviction, anything that a half-done operation
// leaves behind, a lock that stays held, a refusal that nobody is told of, and an allocation where
// something is given back.

#include "Mem/Mem_MemInfo.h"
#include "Mem/Mem_MemPager.h"
#include "Mem/Mem_ShmmHeap.h"
#include "support/FailingNew.h"
#include "support/FailingPlatform.h"
#include "support/Footprint.h"
#include "support/Mem_TestAccess.h"
#include "support/PagerWorld.h"
#include "support/Seeds.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <list>
#include <map>
#include <memory>
#include <random>
#include <thread>

namespace
{
struct ModelBlock {
    unsigned size;
    int pieces = 0, m_ref = 0;
};

struct ModelPiece {
    int block; // -1: gone
    unsigned size;
    unsigned char stamp;
    int handles = 1, mappings = 1;
};

/// What a pager is said to do, in the plainest form. A block has its view while pieces of it are
/// mapped or it is in the queue.
struct Model {
    std::map<int, ModelBlock> blocks;
    std::deque<int> queue;
    int next_id = 0;

    bool HasView(int id) const { return blocks.at(id).m_ref > 0 || std::ranges::count(queue, id); }
    unsigned long long Mapped() const
    {
        unsigned long long sum = 0;
        for (const auto& [id, block] : blocks)
            sum += HasView(id) ? block.size : 0;
        return sum;
    }
    void BlockMapped(int id)
    {
        std::erase(queue, id);
        ++blocks.at(id).m_ref;
    }
    void BlockUnmapped(int id)
    {
        ModelBlock& block = blocks.at(id);
        const bool full = Mapped() > TestConfiguration::cache_limit;
        if (--block.m_ref != 0)
            return;
        for (unsigned long long freed = 0; full && freed < block.size; queue.pop_front()) {
            if (queue.empty())
                return;
            freed += blocks.at(queue.front()).size;
        }
        queue.push_back(id);
    }
    void PieceFreed(ModelPiece& piece)
    {
        if (piece.block >= 0 && --blocks.at(piece.block).pieces == 0) {
            std::erase(queue, piece.block);
            blocks.erase(piece.block);
            next_id = blocks.empty() ? 0 : next_id;
        }
        piece.block = -1;
    }
};

constexpr int thrown = -99;
int ResultOf(auto call)
{
    try {
        return call();
    } catch (...) {
        return thrown;
    }
}

/// One pager and its model, driven by the same random steps.
class Life
{
public:
    Life(ShmmHeap* heap, unsigned seed, LogCapture& log)
        : m_random(seed), m_pager(Mem_TestAccess::MakePager(heap)), m_log(log)
    {
    }
    ~Life()
    {
        while (!m_hands.empty())
            Leave();
        Check();
        // Asked from another thread, since a lock lets its own thread in.
        std::jthread([] { EXPECT_TRUE(Mem_TestAccess::TryAllLocks()); });
    }

    void Step()
    {
        static constexpr std::pair<unsigned, void (Life::*)()> steps[] = {
            {18, &Life::Allocate},    {24, &Life::CopyHandle},   {54, &Life::Map},
            {82, &Life::Unmap},       {85, &Life::Cache},        {88, &Life::MapTogether},
            {94, &Life::Leave},       {96, &Life::FreeDirectly}, {98, &Life::ClearCache},
            {100, &Life::ChangeLimit}};
        const unsigned number = m_hands.empty() ? 0 : Below(100);
        const auto* step = steps;
        while (step->first <= number)
            ++step;
        (this->*step->second)();
        Check();
    }

    /// Broken() sees to it that sums and states agree with the counts and the queue.
    void Check() const
    {
        ASSERT_EQ(Mem_TestAccess::Broken(*m_pager), nullptr);
        Mem_Status status;
        m_pager->GetCurrentStatus(status);
        ASSERT_EQ(status.total_mapped, m_model.Mapped());
        ASSERT_EQ(status.blocks_count, static_cast<int>(m_model.blocks.size()));
        ASSERT_EQ(Mem_TestAccess::QueueOrder(*m_pager),
                  std::vector<int>(m_model.queue.begin(), m_model.queue.end()));
        for (const ModelPiece& piece : m_pieces)
            status.local_pieces_size -= piece.block >= 0 ? piece.size : 0;
        ASSERT_EQ(status.local_pieces_size, 0u);
        for (const auto& [id, block] : m_model.blocks) {
            const RegisteredBlock& real = Mem_TestAccess::Blocks(*m_pager).At(id);
            ASSERT_EQ(std::pair(int{real.ref}, real.m_ref()), std::pair(block.pieces, block.m_ref))
                << id;
        }
        for (const Hand& hand : m_hands)
            CheckHand(hand);
    }

private:
    struct Hand {
        MEM_PagerInfo info;
        ModelPiece* piece = nullptr;
        int mappings = 0;

        /// Whether there is no more to map: only a mapping that lasts keeps the pager unasked.
        bool Gone() const { return piece->block < 0 && piece->mappings == 0; }
    };
    using HandAt = std::list<Hand>::iterator;

    unsigned Below(unsigned bound) { return static_cast<unsigned>(m_random() % bound); }
    HandAt Any()
    {
        return std::next(m_hands.begin(), Below(static_cast<unsigned>(m_hands.size())));
    }

    void CheckHand(const Hand& hand) const
    {
        const PagerInfoState& state = *Mem_TestAccess::State(hand.info);
        const ModelPiece& piece = *hand.piece;
        ASSERT_EQ(std::tuple(hand.info.Block(), state.map_count(), state.ref_count()),
                  std::tuple(piece.block, piece.mappings, piece.handles));
        ASSERT_EQ(hand.info.GetAllocatedSize(), piece.size);
        if (piece.block < 0)
            return;
        const auto* bytes = static_cast<const unsigned char*>(hand.info.Ptr());
        ASSERT_EQ(bytes != nullptr, hand.mappings > 0);
        ASSERT_EQ(hand.info.Size(), bytes != nullptr ? piece.size : 0);
        for (unsigned at = piece.size; bytes != nullptr && at > 0; at -= std::min(at, 997u))
            ASSERT_EQ(bytes[at - 1], piece.stamp);
    }

    /// Lets none, one or two calls of that kind in a row fail, and listens then.
    FailingPlatform Failing(unsigned kind)
    {
        m_failures = Below(8) == 0 ? static_cast<int>(1 + Below(2)) : 0;
        ZorGLog.SetLogLevel(m_failures > 0 ? 5 : 3);
        m_log.Clear();
        return FailingPlatform(kind, 1, m_failures);
    }

    /// For what gives back: it allocates nothing, and a view that won't go changes nothing.
    int GiveBack(auto call)
    {
        const FailingPlatform failing = Failing(FailingPlatform::Unview);
        const auto before = AllocationsOfThisThread();
        const int result = ResultOf(call);
        const auto after = AllocationsOfThisThread(); // to listen allocates
        if (m_failures == 0) {
            EXPECT_EQ(after, before) << "something was allocated";
        }
        EXPECT_EQ(m_log.Count(4, "SwapMapInfo::Unmap|") > 0, failing.Fired());
        return result;
    }

    void Allocate()
    {
        constexpr unsigned sizes[] = {1, 1000, 8191, 8192, 8193, 30000, 65536, 65537, 200000};
        const unsigned size = sizes[Below(9)], alignment = Below(3) * 64, group = Below(2);
        Hand hand;
        const FailingPlatform failing =
            Failing(Below(2) == 0 ? FailingPlatform::Create : FailingPlatform::View);
        const int result =
            m_pager->Allocate(size, &hand.info, static_cast<int>(alignment), 0, group);
        const bool refused = failing.Fired() && m_failures == 2;
        ASSERT_EQ(result, refused ? -1 : 0);
        ASSERT_EQ(failing.Fired(), m_log.Size() > 0) << "nobody is told";
        if (failing.Fired())
            m_model.queue.clear();
        ASSERT_EQ(hand.info.IsValid(), result == 0);
        if (result != 0)
            return;
        const auto address = reinterpret_cast<std::uintptr_t>(hand.info.Ptr());
        ASSERT_EQ(alignment == 0 ? 0 : address % alignment, 0u);
        const int id = hand.info.Block();
        if (m_model.blocks.count(id) == 0) {
            ASSERT_EQ(id, m_model.next_id++);
            m_model.blocks[id] = {std::max(size, TestConfiguration::base_block_size)};
        }
        ++m_model.blocks.at(id).pieces;
        m_model.BlockMapped(id);
        const auto stamp = static_cast<unsigned char>(m_random());
        std::memset(hand.info.Ptr(), stamp, size);
        hand.piece = &m_pieces.emplace_back(ModelPiece{id, size, stamp});
        hand.mappings = 1;
        m_hands.push_back(hand); // takes a mapping of its own; the other's ends with `hand`
    }

    void CopyHandle()
    {
        const Hand& from = *Any();
        Hand& hand = m_hands.emplace_back();
        hand.piece = from.piece;
        if (Below(2) == 0)
            hand.info.GetUnmappedInfo(from.info);
        else
            hand.mappings = from.piece->mappings > 0 ? 1 : 0;
        hand.info = from.info; // maps it, unless it is a handle of the piece already
        hand.piece->handles += 1;
        hand.piece->mappings += hand.mappings;
    }

    void Map()
    {
        Hand& hand = *Any();
        const FailingPlatform failing = Failing(FailingPlatform::View);
        const bool fails = m_failures > 0 && !hand.Gone() && hand.piece->mappings == 0 &&
                           !m_model.HasView(hand.piece->block);
        if (fails)
            m_model.queue.clear();
        const int result = ResultOf([&] { return hand.info.Map(); });
        ASSERT_EQ(m_log.Size() > 0, fails);
        const bool refused = fails && m_failures == 2;
        ASSERT_EQ(result, hand.Gone() ? thrown : refused ? -1 : 0);
        if (result == 0)
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
        const auto gone = std::ranges::find_if(hands, &Hand::Gone);
        for (auto hand = hands.begin(); hand != gone; ++hand)
            CountMap(**hand);
        const int result = ResultOf([&] { return m_pager->MapMemPagerInfoVec(infos.data(), all); });
        ASSERT_EQ(result, gone != hands.end() ? thrown : 0);
        if (result == 0 && Below(2) == 0)
            return;
        if (result == 0)
            m_pager->UnmapMemPagerInfoVec(infos.data(), all);
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
        const bool last_of_gone = hand.piece->block < 0 && hand.piece->mappings == 1;
        const int result = GiveBack([&] { return hand.info.Unmap(); });
        ASSERT_EQ(result, hand.mappings == 0 ? -1 : last_of_gone ? thrown : 0);
        if (result == 0)
            CountUnmap(hand);
    }

    void Cache()
    {
        if (Below(2) == 0)
            ClearCache(); // else there is seldom a view to get
        Hand& hand = *Any();
        const FailingPlatform failing = Failing(FailingPlatform::View);
        const bool full = m_model.Mapped() > TestConfiguration::cache_limit;
        const bool gone = hand.piece->block < 0;
        const bool maps = !full && !gone && !m_model.HasView(hand.piece->block);
        const int result = ResultOf([&] { return hand.info.Cache(); });
        const bool refused = full || (maps && m_failures > 0);
        ASSERT_EQ(result, refused ? -1 : gone ? thrown : 0);
        if (maps && result == 0)
            m_model.queue.push_back(hand.piece->block);
    }

    void Leave()
    {
        const HandAt hand = Any();
        ModelPiece& piece = *hand->piece;
        if (Below(2) == 0) {
            const bool detach = Below(2) == 0, last_counts = Below(2) == 0;
            const bool mapped = piece.mappings > 0, alone = !mapped && piece.handles == 1;
            const bool stays = hand->mappings > 0 || (!detach && !alone);
            const bool leaves_one = alone || (piece.handles == 2 && last_counts);
            const int answer =
                GiveBack([&] { return int{hand->info.ReleaseIfUnmapped(detach, last_counts)}; });
            ASSERT_EQ(answer, stays        ? (mapped ? MEM_STILL_MAPPED : MEM_STILL_SHARED)
                              : mapped     ? MEM_DETACHED_MAPPED
                              : leaves_one ? MEM_RELEASED
                                           : MEM_DETACHED_SHARED);
            if (stays)
                return;
        }
        GiveBack([&] { return hand->info.Release(), 0; });
        piece.mappings -= hand->mappings; // the block isn't told
        if (--piece.handles == 0)
            m_model.PieceFreed(piece);
        m_hands.erase(hand);
    }

    void FreeDirectly()
    {
        Hand& hand = *Any();
        ASSERT_EQ(GiveBack([&] { return m_pager->Free(hand.info); }), 0);
        m_model.PieceFreed(*hand.piece);
    }

    void ClearCache()
    {
        const unsigned long long mapped = m_model.Mapped();
        m_model.queue.clear();
        const unsigned long long freed = mapped - m_model.Mapped();
        ASSERT_EQ(GiveBack([&] { return m_pager->ClearCache() == freed ? 0 : 1; }), 0);
    }

    void ChangeLimit() { TestConfiguration::cache_limit = Below(12) * 65536 + Below(2); }

    std::mt19937 m_random;
    std::unique_ptr<MEM_MemPager> m_pager;
    Model m_model;
    std::list<ModelPiece> m_pieces;
    std::list<Hand> m_hands;
    LogCapture& m_log;
    int m_failures = 0; ///< in a row, of the last Failing()
};

TEST(PagerModel, TwoPagersOnOneHeapLiveLikeTheirModels)
{
    LogCapture log;
    const Footprint before = Footprint::Now();
    ForEachSeed(25, 600, [&log](unsigned seed) {
        TestConfiguration::Scope configuration;
        Memory_ShmmHeap heap;
        Life first(&heap, seed, log), second(&heap, seed + 1000, log);
        for (int step = 0; step < 600; ++step) {
            (step % 3 == 0 ? second : first).Step();
            ASSERT_FALSE(HasFatalFailure()) << "step " << step;
        }
    });
    EXPECT_EQ(Footprint::Now(), before);
}
} // namespace
