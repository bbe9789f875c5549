// Buffers beside a std::vector that sees the same: hunts elements lost, moved or left without a
// value, growth that fails halfway, references that go bad under an algorithm, and threads that
// meet in each other's mappings.

#include "mempager/mempager.h"

#include "support/FailingNew.h"
#include "support/FailingPlatform.h"
#include "support/PagerWorld.h"
#include "support/Seeds.h"
#include "support/ThisProcess.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <list>
#include <numeric>
#include <random>
#include <thread>

namespace
{
using namespace mempager;
using Failing = FailingPlatform;
using Elements = std::vector<int>;

constexpr layout kSmall{10, 40 * sizeof(int)}; // four rows of ten in a fragment

std::string ScratchFile()
{
    return (std::filesystem::temp_directory_path() / ("typed_" + std::to_string(OwnId()))).string();
}

/// Runs in a world of small regions, and leaves nothing of it.
struct TypedBuffer : testing::Test {
    TypedBuffer() { TestConfiguration::base_block_size = 1; }
    ~TypedBuffer() override
    {
        const Mem_Status now = status();
        EXPECT_EQ(now.local_pieces_size, 0u);
        EXPECT_EQ(now.total_mapped, now.total_cached);
    }
    TestConfiguration::Scope configuration;
    LogCapture quiet{0};
};

Elements ContentOf(const buffer<int>& of)
{
    Elements content;
    for (const std::span<const int> part : of.parts())
        content.insert(content.end(), part.begin(), part.end());
    return content;
}

struct Pair {
    explicit Pair(unsigned seed) : random(seed) {}

    std::size_t Below(std::size_t bound) { return random() % bound; }
    int Number() { return static_cast<int>(Below(1000)); }

    void Step()
    {
        Elements more(Below(100));
        std::ranges::generate(more, [this] { return Number(); });
        const std::size_t kind = Below(9);
        if (kind == 0)
            Resize(Below(500));
        else if (kind == 1)
            Append(more, more);
        else if (kind == 2)
            Append(std::list<short>(3, 5), Elements(3, 5));
        else if (kind == 3)
            real.reserve(model.size() + Below(100));
        else if (kind == 4)
            Sort();
        else if (kind == 5)
            SaveAndLoad();
        else if (kind == 6)
            Write();
        else if (kind == 7 && !model.empty())
            PopBack();
        else
            PushBack(more);
    }
    void Append(const auto& range, const Elements& same)
    {
        real.append(range);
        model.insert(model.end(), same.begin(), same.end());
    }
    void PushBack(const Elements& more)
    {
        for (const int value : more)
            real.push_back(value);
        model.insert(model.end(), more.begin(), more.end());
    }
    void PopBack()
    {
        real = buffer<int>(std::move(real));
        real.pop_back();
        model.pop_back();
    }
    void Sort()
    {
        const auto few = real.elements(4); // and more fragments than that
        std::ranges::sort(few, std::greater());
        std::ranges::sort(model, std::greater());
        const auto by = static_cast<std::ptrdiff_t>(Below(model.size() + 1));
        std::rotate(few.begin(), few.begin() + by, few.end());
        std::rotate(model.begin(), model.begin() + by, model.end());
    }
    void Resize(std::size_t size)
    {
        real.resize(size);
        model.resize(size);
    }
    void Write()
    {
        const auto elements = real.elements(Below(9));
        for (int i = 0; i < 20 && !model.empty(); ++i) {
            const std::size_t at = Below(model.size());
            model[at] = elements[at] = Number();
        }
        EXPECT_THROW(elements[model.size()], std::out_of_range);
    }
    void SaveAndLoad()
    {
        std::uint64_t done = 0;
        real.save(ScratchFile(), [&done](std::uint64_t now, std::uint64_t) { done = now; });
        EXPECT_EQ(done, model.size() * sizeof(int));
        real.clear();
        real.load(ScratchFile());
        std::filesystem::remove(ScratchFile());
    }
    void Check()
    {
        ASSERT_EQ(ContentOf(real), model);
        const auto elements = std::as_const(real).elements();
        ASSERT_TRUE(std::equal(elements.begin(), elements.end(), model.begin(), model.end()));
        const std::size_t rows = model.size() / kSmall.together;
        ASSERT_EQ(elements.rows().size(), rows);
        for (std::size_t y = 0; y < rows; ++y)
            ASSERT_EQ(elements.rows()[y][7], model[y * 10 + 7]);
        for (std::size_t z = 0; z < rows / 3; ++z)
            ASSERT_EQ(elements.slices(5, 6)[z][4][2], model[z * 30 + 22]);
        ASSERT_THROW(elements.rows(7), std::invalid_argument);
    }

    std::minstd_rand random;
    buffer<int> real{kSmall};
    Elements model;
};

TEST_F(TypedBuffer, LivesLikeAVector)
{
    ForEachSeed(12, 60, [](unsigned seed) {
        TestConfiguration::cache_limit = seed % 2 << 20; // 0: what is unmapped is gone
        Pair pair(seed);
        for (int step = 0; step < 60 && !HasFailure(); ++step) {
            pair.Step();
            pair.Check();
        }
    });
}

TEST_F(TypedBuffer, KeepsReferencesForAsLongAsItPromises)
{
    TestConfiguration::cache_limit = 0; // what is unmapped is gone
    buffer<int> real(4000, kSmall);
    const auto many = real.elements();
    int& held = many[0];
    for (std::size_t fragment = 1; fragment < 16; ++fragment)
        many[fragment * 40] = 1;
    held = 5;
    const auto few = real.elements();
    few[100];
    few[200];
    few[300];
    int& kept = few[0];
    if (const Failing failing(Failing::View, 1, 3); true) // as if there were room for four
        few[1000] = 1;
    {
        const Failing failing(Failing::View, 1, 9999);
        EXPECT_THROW(few[2000], error);
    }
    EXPECT_EQ(kept, 5);
    EXPECT_EQ(few[2000], 0); // tries again
}

TEST_F(TypedBuffer, RefusesToBeResizedUnderACursor)
{
    buffer<int> real(100, kSmall);
    {
        const auto elements = std::as_const(real).elements();
        std::error_code code;
        real.resize(5, code);
        EXPECT_EQ(code, errc::in_use);
        real.push_back(5, code);
        EXPECT_EQ(code, std::errc::device_or_resource_busy);
        EXPECT_THROW(real.load(ScratchFile()), error);
        EXPECT_THROW(real.clear(), std::bad_alloc);
        real = buffer<int>(3, kSmall); // the old one's memory stays for the cursor
        EXPECT_EQ(elements[99], 0);
    }
    real.push_back(5);
    EXPECT_EQ(ContentOf(real), (Elements{0, 0, 0, 5}));
}

TEST_F(TypedBuffer, FailsToLoadWithAllItsElements)
{
    buffer<int> real(kSmall);
    real.append(Elements{1, 2, 3});
    std::error_code code;
    real.load(ScratchFile(), code);
    EXPECT_EQ(code, std::errc::no_such_file_or_directory);
    buffer<char>(7).save(ScratchFile());
    real.load(ScratchFile(), code);
    EXPECT_EQ(code, errc::bad_file);
    const auto stop = [](std::uint64_t, std::uint64_t) { throw std::runtime_error("stop"); };
    EXPECT_THROW(real.save(ScratchFile(), stop, code), std::runtime_error);
    EXPECT_EQ(std::filesystem::file_size(ScratchFile()), 7u);
    EXPECT_FALSE(std::filesystem::exists(ScratchFile() + ".part"));
    std::filesystem::remove(ScratchFile());
    real.save(ScratchFile() + "/none", code);
    EXPECT_TRUE(code);
    EXPECT_EQ(ContentOf(real), (Elements{1, 2, 3}));
}

/// Grows with `grow`, with the n-th call of the platform or the n-th allocation failing, for each n
/// until none does. A buffer that couldn't grow has to be as it was, and to grow after that.
void FailEachStep(std::size_t from, auto grow)
{
    const auto once = [&](auto make_guard) {
        Elements model(from, 3);
        buffer<int> real(kSmall);
        real.append(model);
        buffer<int> grown(kSmall);
        grown.append(model);
        grow(grown);
        std::error_code code;
        bool fired = false;
        MEM_MemPager::GetHandle()->ClearCache();
        if (const auto guard = make_guard(); true) {
            detail::told(code, [&] { grow(real); });
            fired = guard.Fired();
        }
        if (!fired) {
            EXPECT_FALSE(code) << "it failed although nothing was in its way";
        }
        EXPECT_EQ(ContentOf(real), code ? model : ContentOf(grown));
        if (code)
            grow(real);
        EXPECT_EQ(ContentOf(real), ContentOf(grown));
        return fired && !testing::Test::HasFailure();
    };
    int n = 1;
    while (once([&n] { return Failing(Failing::Create | Failing::View, n, 9999); }))
        ++n;
    EXPECT_GT(n, 1);
    for (unsigned i = 1; once([&i] { return FailingNew(i, 9999); });)
        ++i;
}

TEST_F(TypedBuffer, IsAsItWasWhenItFailsToGrow)
{
    for (const std::size_t from : {0u, 7u, 40u, 130u}) {
        FailEachStep(from, [](buffer<int>& all) { all.resize(all.size() + 100); });
        FailEachStep(from, [](buffer<int>& all) { all.append(Elements(90, 4)); });
        FailEachStep(from, [](buffer<int>& all) { all.append(std::list<int>(90, 4)); });
    }
    for (const std::size_t full : {0u, 40u, 160u})
        FailEachStep(full, [](buffer<int>& all) { all.push_back(5); });
}

TEST(TypedThreads, WorkOnOneBufferByACursorEach)
{
    TestConfiguration::Scope configuration;
    TestConfiguration::cache_limit = 100000;
    constexpr std::size_t count = 80000, share = count / 8;
    buffer<int> real(count, kSmall);
    std::vector<std::jthread> threads;
    for (std::size_t part = 0; part < 8; ++part)
        threads.emplace_back([&real, part] {
            const auto mine = real.elements(4);
            const auto first = mine.begin() + static_cast<std::ptrdiff_t>(part * share);
            const auto end = first + static_cast<std::ptrdiff_t>(share);
            std::iota(first, end, static_cast<int>(part * share));
            std::reverse(first, end);
            std::sort(first, end);
            std::error_code code;
            real.resize(1, code); // refused, whatever the others do
            EXPECT_EQ(code, errc::in_use);
        });
    threads.clear();
    std::atomic<int> right = 0;
    for (std::size_t part = 0; part < 8; ++part)
        threads.emplace_back([&all = std::as_const(real), &right] {
            int next = 0;
            for (const std::span<const int> run : all.parts())
                for (const int value : run)
                    right += value == next++ ? 1 : 0;
        });
    threads.clear();
    EXPECT_EQ(right, 8 * static_cast<int>(count));
    real.resize(1);
}
} // namespace
