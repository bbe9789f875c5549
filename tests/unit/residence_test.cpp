// Hunts a count of resident bytes that takes in what nobody has touched, or leaves out a view.

#include "mempager/mempager.h"

#include "support/FailingPlatform.h"

#include <gtest/gtest.h>

namespace
{
using namespace mempager;

TEST(Residence, IsOfTouchedPagesInAllViews)
{
    constexpr std::size_t size = 4 << 20; // whole pages of any size
    MEM_MemPager::GetHandle()->ClearCache();
    const unsigned long long before = stores(true).resident;
    piece<char> touched(size);
    piece<char> half(2 * size, for_overwrite);
    piece<char> untouched(size, for_overwrite);
    std::ranges::fill(half.map().first(size), 'x');
    const Mem_StoreStatus now = stores(true);
    ASSERT_TRUE(now.resident_is_known);
    EXPECT_GE(now.resident - before, 2 * size) << "all of it waits in the cache";
    EXPECT_LT(now.resident - before, 3 * size) << "a page of the untouched piece at the most";
    const FailingPlatform failing(FailingPlatform::Ask, 1);
    EXPECT_FALSE(stores(true).resident_is_known);
}

} // namespace
