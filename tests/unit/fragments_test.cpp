// Buffers in fragments beside a plain vector, resized in every way, and with each allocation and
// mapping of a resize failing in turn: hunts bytes lost or moved, ranges past a fragment's end, the
// wrong fragment evicted, a fragment that is mapped and forgotten, or named twice, mappings and
// pieces that a half-done resize leaves, and pointers that go bad too early.

#include "Mem/Mem_MemFragmentsAllocator.h"
#include "Mem/Mem_MemInfo.h"
#include "Mem/Mem_VirtualFragmentsAllocator.h"
#include "Zor/Zor_PerformanceCounters.h"
#include "support/FailingNew.h"
#include "support/FailingPlatform.h"
#include "support/Mem_TestAccess.h"
#include "support/PagerWorld.h"
#include "support/Seeds.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <set>

namespace
{
using Access = Mem_TestAccess;
using Failing = FailingPlatform;
using Mem = Mem_MemFragmentsAllocator;

void ExpectNothingLeft()
{
    Mem_Status status;
    MEM_MemPager::GetHandle()->GetCurrentStatus(status);
    EXPECT_EQ(status.local_pieces_size, 0u);
    EXPECT_EQ(status.local_blocks_size, 0u);
    EXPECT_EQ(status.total_mapped, 0u);
}

/// An allocator, the bytes that it is to hold, and the fragments that it is to hold mapped.
template <class Allocator>
struct Pair {
    static constexpr bool paged = std::is_same_v<Allocator, Mem>;

    Pair(size_t element, size_t elements, unsigned request)
        : fragment(request - request % element), real(element, elements, request)
    {
        Resized(elements * element);
    }

    size_t Count() const { return (bytes.size() + fragment - 1) / fragment; }

    /// Takes a range, looks whether it is as it was left, and leaves it with other bytes.
    void Use(size_t at, size_t length, bool is_new = false)
    {
        const size_t told = std::min({length, fragment - at % fragment, bytes.size() - at});
        void* const range = real.GetRangeFromIndex(at, length);
        ASSERT_NE(range, nullptr);
        ASSERT_EQ(length, told);
        ASSERT_EQ(range, real.GetPointerAtIndex(at));
        if (held[current] != at / fragment)
            current = held.size() - 1 - current;
        held[current] = at / fragment;
        if (!is_new) {
            ASSERT_EQ(std::memcmp(range, &bytes[at], length), 0) << at;
        }
        std::generate_n(&bytes[at], length, [this] { return static_cast<char>(random()); });
        std::memcpy(range, &bytes[at], length);
    }
    void UseFrom(size_t at, bool is_new = false)
    {
        for (; at < bytes.size(); at += fragment - at % fragment)
            Use(at, SIZE_MAX, is_new);
    }

    /// Follows a resize that went well, and uses all bytes.
    void Resized(size_t size)
    {
        const size_t old = bytes.size();
        bytes.resize(size);
        held = Count() == 1 ? std::vector<size_t>{0} : std::vector{Count() - 2, Count() - 1};
        current = 0;
        ASSERT_FALSE(Access::HasLostMapping(real));
        Check();
        UseFrom(old, true);
        UseFrom(0);
    }

    /// Follows a failure: which fragments are mapped is open.
    void Failed()
    {
        std::tie(held, current) = Access::HeldAndCurrent(real);
        Check();
    }

    void Check() const
    {
        const auto infos = Access::Fragments(real);
        ASSERT_EQ(std::pair(real.GetTotalBufferSize(), infos.size()),
                  std::pair(bytes.size(), Count()));
        if constexpr (paged) {
            const bool lost = Access::HasLostMapping(real);
            Mem_Status status;
            MEM_MemPager::GetHandle()->GetCurrentStatus(status);
            std::set<BaseMapInfo*> regions;
            for (size_t i = 0; const auto& [start, end, is_mapped, info, ready] : infos) {
                const PagerInfoState& state = *Access::State(info);
                const bool is_held = std::ranges::count(held, i++) == 1;
                if (is_mapped || !lost) {
                    ASSERT_EQ(is_held, is_mapped) << start;
                }
                ASSERT_EQ(std::pair(state.map_count(), state.ref_count()),
                          std::pair(+is_mapped, 1));
                if (is_mapped && regions.insert(state.mem_info->Owner()).second)
                    status.total_mapped -= state.mem_info->Owner()->Size();
            }
            ASSERT_EQ(status.local_pieces_size, bytes.size());
            ASSERT_EQ(status.total_mapped, status.total_cached);
            ASSERT_EQ(Access::HeldAndCurrent(real), std::pair(held, current));
            if (!lost) {
                ASSERT_TRUE(Access::IsCurrent(real, infos[held[current]]));
            }
        }
    }

    const size_t fragment;
    Allocator real;
    std::vector<char> bytes;
    std::vector<size_t> held;
    size_t current = 0;
    std::minstd_rand random;
};

/// Runs `once` with guards under which the n-th call of the platform or the n-th allocation fails,
/// and the next or all that follow, for each n until none fails.
void WithEachFailure(auto once)
{
    for (const int count : {2, 9999}) {
        TestConfiguration::base_block_size = 1; // a view for each fragment
        for (int n = 1; once([=] { return Failing(Failing::Create | Failing::View, n, count); });)
            ++n;
        TestConfiguration::base_block_size = 65536;
        for (unsigned n = 1; once([=] { return FailingNew(n, count == 2 ? 1 : 9999); });)
            ++n;
    }
}

template <class Allocator>
struct Fragments : testing::Test {
    Fragments() { TestConfiguration::cache_limit = 0; }
    ~Fragments() override
    {
        ExpectNothingLeft();
        Zor_PerformanceCounters::SetLogLevel(0);
    }

    LogCapture quiet{0};
    TestConfiguration::Scope configuration;
};
using Kinds = testing::Types<Mem, Mem_VirtualFragmentsAllocator>;
TYPED_TEST_SUITE(Fragments, Kinds);

TYPED_TEST(Fragments, LiveLikeAVector)
{
    ForEachSeed(150, 60, [](unsigned seed) {
        ZorGLog.SetSink([](const Zor_LogRecord&) {});
        ZorGLog.SetLogLevel(seed % 4 == 0 ? 7 : 0); // each line is put together
        std::minstd_rand random(seed);
        const auto below = [&random](size_t bound) { return random() % bound; };
        TestConfiguration::base_block_size = seed % 5 == 0 ? 1 : 65536;
        const size_t element = 1 + below(9), in_one = 1 + below(8), most = 9 * in_one;
        const auto request = static_cast<unsigned>(element * in_one + below(element));
        Pair<TypeParam> pair(element, 1 + below(most), request);
        for (int step = 0; step < 60 && !testing::Test::HasFailure(); ++step) {
            SCOPED_TRACE(step);
            const size_t old = pair.bytes.size(), now = old / element;
            size_t length[] = {0, 1 + below(20), SIZE_MAX}, at = 0;
            for (int i = 0; i < 4; ++i)
                pair.Use(at = below(old), length[below(3)]);
            pair.Check();
            const void* const place = pair.real.GetPointerAtIndex(at);
            const size_t any = 1 + below(most), whole = in_one * (1 + below(9));
            const size_t sizes[] = {0,       any,     whole,        now,
                                    now + 1, now - 1, now + in_one, SIZE_MAX / element + 1};
            const size_t next = sizes[below(8)];
            const bool may_be = next != 0 && next <= SIZE_MAX / element;
            ASSERT_EQ(pair.real.Reallocate(next), may_be ? 0 : -1);
            if (may_be && next != now)
                pair.Resized(next * element);
            const bool stays =
                (at / pair.fragment + 1) * pair.fragment <= std::min(old, pair.bytes.size());
            if (!pair.paged && stays) {
                EXPECT_EQ(pair.real.GetPointerAtIndex(at), place);
            }
            EXPECT_FALSE(pair.real.GetPointerAtIndex(pair.bytes.size() + below(2) * request));
            EXPECT_FALSE(pair.real.GetRangeFromIndex(SIZE_MAX, length[1]));
            EXPECT_LE(length[1], 20u);
        }
    });
}

TYPED_TEST(Fragments, FailToBeResizedWithAllTheirBytes)
{
    Zor_PerformanceCounters::SetLogLevel(5); // counters are wanted, and may be missing
    const auto once = [this](size_t from, size_t to, size_t touched, auto make_guard) {
        SCOPED_TRACE(testing::Message() << from << " to " << to << ", " << touched);
        Pair<TypeParam> pair(1000, from, 4000);
        for (size_t i = 0; i < touched; ++i)
            pair.Use(i * 4000, 1);
        if (touched == 4) { // a place names a fragment that isn't mapped any more
            const Failing failing(Failing::View, 1, 2);
            pair.real.GetPointerAtIndex(16000);
        }
        int result = -1;
        bool fired = false;
        if (const auto guard = make_guard(); true) {
            try {
                result = pair.real.Reallocate(to);
                if (from == 3) // another may not come to be, or come without counters
                    TypeParam(1000, 9, 4000).Reallocate(10);
            } catch (const std::bad_alloc&) {
            }
            fired = guard.Fired();
            // Where no mapping could be had again, and perhaps still can't: right bytes or null.
            for (size_t at = 0; Access::HasLostMapping(pair.real) && at < from * 1000; at += 4000) {
                const auto* const byte = static_cast<char*>(pair.real.GetPointerAtIndex(at));
                result = byte == nullptr || *byte == pair.bytes[at] ? result : -2;
            }
        }
        const bool is_refused = result != 0 && fired;
        EXPECT_EQ(result, is_refused ? -1 : 0);
        if (result != 0) {
            pair.Failed();
            pair.Use(pair.held[pair.current] * 4000, 1);
            pair.Failed();
            { // One mapping may be all that there is room for now.
                const Failing failing(Failing::View, 1, Access::HasLostMapping(pair.real) ? 2 : 0);
                pair.UseFrom(0);
            }
            pair.Failed();
            EXPECT_EQ(pair.real.Reallocate(to), 0);
        }
        pair.Resized(to * 1000);
        return fired && !this->HasFailure();
    };
    for (const size_t from : {3u, 4u, 8u, 18u, 20u})
        for (const size_t to : {2u, 5u, 12u, 16u, 19u, 26u})
            for (size_t touched = 0; touched < (from + 3) / 4; ++touched)
                WithEachFailure([&](auto guard) { return once(from, to, touched, guard); });
}

TYPED_TEST(Fragments, CannotBeMadeFromAnyArguments)
{
    const std::tuple<size_t, size_t, unsigned> cases[] = {
        {0, 1, 9}, {1, 0, 9}, {10, 1, 9}, {16, SIZE_MAX / 16 + 1, 64}, {78643201, 1, 0}};
    for (const auto& [element, elements, request] : cases) {
        LogCapture log(3);
        TypeParam real(element, elements, request);
        size_t length = 5;
        EXPECT_FALSE(real.IsValid());
        EXPECT_EQ(real.GetPointerAtIndex(0), nullptr);
        EXPECT_EQ(real.GetPointerAtIndex(1), nullptr);
        EXPECT_EQ(real.GetRangeFromIndex(0, length), nullptr);
        EXPECT_EQ(length, 5u);
        EXPECT_EQ(real.Reallocate(1), -1);
        EXPECT_EQ(log.Count(3, "Mem_"), 5);
    }
}

using MemFragments = Fragments<Mem>;
TEST_F(MemFragments, AreMissedAfterAFailedReplacementUntilTheNextResize)
{
    TestConfiguration::base_block_size = 1;
    Zor_PerformanceCounters::SetLogLevel(4); // nothing is counted
    Mem(1, 1, 1);                            // its counters are its own
    Pair<Mem> pair(1000, 20, 4000);
    Zor_PerformanceCounters::SetLogLevel(5);
    for (const size_t at : {0u, 4000u, 12000u}) {
        const Failing failing(Failing::View, 1, at == 0 ? 2 : 0);
        EXPECT_EQ(pair.real.GetPointerAtIndex(at), nullptr);
        pair.Use(16000, SIZE_MAX);
    }
    EXPECT_EQ(pair.real.Reallocate(19), 0);
    pair.Resized(19000);
    const Failing failing(Failing::View, 4, 9999);
    EXPECT_EQ(pair.real.Reallocate(26), 0); // three new pieces, and no other view
    EXPECT_EQ(pair.real.Reallocate(40), -1);
    const auto counters = Zor_PerformanceCounters::Instance()->ReadAll();
    const auto own = std::span(counters).last(4);
    EXPECT_EQ(own[3].id - own[0].id, 3);
    EXPECT_STREQ(own[2].name.data(), "Mem_Fragments_Replace");
    EXPECT_STREQ(own[3].name.data(), "Mem_Fragments_Realloc");
    EXPECT_EQ(std::pair(own[2].marks, own[2].closes), std::pair(3 + 5ull, 1 + 2 * 5ull));
    EXPECT_EQ(std::pair(own[3].marks, own[3].closes), std::pair(3ull, 2ull));
}

TEST(OtherFragments, HaveTheToldSizesAndTheCallersMemory)
{
    const Mem_VirtualFragmentsAllocator example(7, 25000000, 0);
    EXPECT_EQ(example.GetMaxFragmentSize(), 78643194u);
    EXPECT_EQ(Access::Fragments(example).back().IndexStart, 175000000u - 17713612u);
    char buffer[24];
    Mem_DummyFragmentsAllocator dummy(buffer, 4, 6);
    size_t length = 1;
    EXPECT_EQ(dummy.GetRangeFromIndex(5, length), dummy.GetPointerAtIndex(5));
    EXPECT_EQ(dummy.GetPointerAtIndex(5), buffer + 5);
    EXPECT_EQ(length, 19u);
    EXPECT_FALSE(dummy.IsValid());
    EXPECT_EQ(dummy.Reallocate(5), -1);
}
} // namespace
