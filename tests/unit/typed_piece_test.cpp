// Pieces, and what shows them to others: hunts a mapping that outlives its guard, however the scope
// is left, a guard that ends what another still needs, and failures that say nothing, or the wrong
// thing.

#include "mempager/mempager.h"

#include "Mem/Mem_MemFragmentsAllocator.h"
#include "Mem/Mem_VirtualFragmentsAllocator.h"
#include "support/Child.h"
#include "support/FailingPlatform.h"
#include "support/PagerWorld.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <iostream>
#include <sstream>
#include <stdexcept>

namespace
{
using namespace mempager;

unsigned long long HeldMapped()
{
    return status().total_mapped - status().total_cached;
}

TEST(TypedPiece, IsUnmappedByTheEndOfItsScope)
{
    piece<double> numbers(1000);
    EXPECT_THROW(
        {
            const auto values = numbers.map();
            values[999] = 1.5;
            throw std::runtime_error("between mapping and unmapping");
        },
        std::runtime_error);
    EXPECT_EQ(HeldMapped(), 0u);
    MEM_MemPager::GetHandle()->ClearCache();
    EXPECT_EQ(status().total_mapped, 0u);
    EXPECT_EQ(numbers.map_const()[999], 1.5);
    EXPECT_EQ(std::ranges::count(numbers.map_const(), 0.0), 999);
}

TEST(TypedPiece, StaysMappedUntilItsLastGuardGoes)
{
    piece<int> numbers(10);
    auto first = numbers.map();
    auto second = numbers.map_const();
    piece<int> moved = std::move(numbers);
    auto third = std::move(first);
    EXPECT_TRUE(first.empty());
    EXPECT_TRUE(numbers.empty());
    third[3] = 7;
    third = mapped<int>();
    EXPECT_EQ(second[3], 7);
    EXPECT_NE(HeldMapped(), 0u);
    second.unmap();
    EXPECT_EQ(HeldMapped(), 0u);
    EXPECT_EQ(moved.size(), 10u);
    EXPECT_TRUE(piece<int>(0).map().empty());
    EXPECT_TRUE(piece<int>().descriptor().empty());
}

TEST(TypedPiece, IsKeptByAGuardThatOutlivesIt)
{
    piece<int> numbers(10);
    auto first = numbers.map();
    auto second = numbers.map();
    numbers = piece<int>();
    second[9] = 7;
    second.unmap();
    EXPECT_EQ(first[9], 7);
    first = piece<int>(20).map();
    EXPECT_EQ(status().local_pieces_size, 20 * sizeof(int));
    first.unmap();
    EXPECT_EQ(status().local_pieces_size, 0u);
}

TEST(TypedPiece, TellsWhyItFails)
{
    LogCapture quiet(3);
    std::error_code code;
    const piece<double> huge(600000000, code);
    EXPECT_EQ(code, errc::too_large);
    EXPECT_EQ(code, std::errc::value_too_large);
    EXPECT_TRUE(huge.empty());
    piece<double> numbers(1000, code);
    EXPECT_FALSE(code);
    MEM_MemPager::GetHandle()->ClearCache();
    {
        const FailingPlatform failing(FailingPlatform::View, 1, 2);
        EXPECT_TRUE(numbers.map(code).empty());
        EXPECT_EQ(code, std::errc::not_enough_memory);
    }
    EXPECT_EQ(numbers.map(code).size(), 1000u);
    EXPECT_FALSE(code);
    const FailingPlatform failing(FailingPlatform::Create, 1, 2);
    try {
        const piece<char> large(100000000);
        FAIL();
    } catch (const std::bad_alloc& failure) {
        std::ostringstream line;
        line << dynamic_cast<const error&>(failure).why();
        const std::string error = std::to_string(FailingPlatform::full_error);
        EXPECT_EQ(line.str(),
                  "piece: no memory left for it (100000000 bytes wanted): a new piece of "
                  "100000000 bytes was refused: the system doesn't say why (system "
                  "error " +
                      error + ")");
        EXPECT_EQ(line.str(), failure.what());
    }
}

CHILD_ROLE(ReaderOfAPiece)
{
    const std::string bytes(std::istreambuf_iterator<char>(std::cin), {});
    const auto descriptor = std::as_bytes(std::span(bytes));
    const foreign<int> copy = foreign<int>(descriptor);
    CHILD_CHECK(copy.size() == 1000);
    CHILD_CHECK(copy.map()[999] == 999);
    std::error_code code;
    const foreign<std::array<char, 7>> others(descriptor, code); // 4000 bytes aren't whole ones
    CHILD_CHECK(others.empty());
    CHILD_CHECK(code == errc::bad_descriptor);
    return 0;
}

TEST(TypedPiece, IsReadByAnotherProcess)
{
    piece<int> numbers(1000);
    std::ranges::generate(numbers.map(), [next = 0]() mutable { return next++; });
    const std::vector<std::byte> descriptor = numbers.descriptor();
    Child reader("ReaderOfAPiece");
    reader.Write({reinterpret_cast<const char*>(descriptor.data()), descriptor.size()});
    reader.EndInput();
    EXPECT_EQ(reader.End(), 0);
    LogCapture quiet(3);
    std::error_code own;
    std::error_code short_one;
    EXPECT_TRUE(foreign<int>(descriptor, own).empty());
    EXPECT_TRUE(foreign<int>(std::span(descriptor).first(9), short_one).empty());
    EXPECT_EQ(own, errc::bad_descriptor);
    EXPECT_EQ(short_one, errc::bad_descriptor);
}

template <class Allocator>
void LiveInAVector()
{
    std::vector<Allocator> all;
    for (char i = 0; i < 5; ++i) {
        all.emplace_back(1, 100, 40);
        *static_cast<char*>(all.back().GetPointerAtIndex(99)) = i;
    }
    all.erase(all.begin());
    EXPECT_EQ(*static_cast<char*>(all[3].GetPointerAtIndex(99)), 4);
    Allocator taken = std::move(all[0]);
    EXPECT_EQ(*static_cast<char*>(taken.GetPointerAtIndex(99)), 1);
    EXPECT_EQ(taken.Reallocate(200), 0);
    EXPECT_FALSE(all[0].IsValid());
    LogCapture quiet(3);
    EXPECT_EQ(all[0].GetPointerAtIndex(0), nullptr);
    EXPECT_EQ(all[0].Reallocate(1), -1);
}

TEST(TypedPiece, SharesAVectorsMovesWithTheAllocators)
{
    LiveInAVector<Mem_MemFragmentsAllocator>();
    LiveInAVector<Mem_VirtualFragmentsAllocator>();
    EXPECT_EQ(status().local_pieces_size, 0u);
}
} // namespace
