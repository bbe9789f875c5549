// What a host shows its users. Hunts bytes that are counted in another store than they lie in, and
// notices that are lost, come too often, or come where a lock is held.

#include "mempager/mempager.h"

#include "posix/support/Children.h"
#include "support/Mem_TestAccess.h"
#include "support/PagerWorld.h"
#include "support/ThisProcess.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

namespace
{
using mempager::piece;
using mempager::stores;
constexpr unsigned MiB = 1 << 20;

bool Holds(const Mem_StoreStatus::Store& store, unsigned reserved_mb, unsigned used_mb)
{
    return store.reserved == std::uint64_t{reserved_mb} * MiB && store.used == used_mb * MiB;
}

CHILD_TEST(Display, TellsWhereMemoryLies, InChildAmongOwnMounts)
{
    const TempFolder temp;
    CHILD_CHECK(Mount("tmpfs", "/dev/shm", "size=24m"));
    Configure(32, temp.path);
    {
        const piece<char> shared(16 * MiB);
        const piece<char> spare(17 * MiB); // there are 8 MB left
        const piece<char> filed(10 * MiB); // 33 MB are more than 32
        const Mem_StoreStatus now = stores();
        CHILD_CHECK(Holds(now.shared_memory, 16, 16), Holds(now.spare_files, 17, 17));
        CHILD_CHECK(Holds(now.temp_files, 64, 10), !now.resident_is_known, now.resident == 0);
    }
    const Mem_StoreStatus after = stores(true);
    CHILD_CHECK(Holds(after.shared_memory, 0, 0), Holds(after.spare_files, 0, 0));
    CHILD_CHECK(Holds(after.temp_files, 0, 0), after.resident_is_known, after.resident == 0);
    return 0;
}

CHILD_TEST(Display, TellsOfPagesThatWereGivenBack, InChild)
{
    constexpr std::size_t size = 2 * MiB; // whole pages of any size
    const piece<char> keeper(size);       // the pieces share a region
    piece<char> given(size);
    const unsigned long long both = stores(true).resident;
    CHILD_CHECK(both >= 2 * size);
    {
        const auto bytes = given.map();
        std::ranges::fill(bytes, 'x');
        given.reduce_working_set();
        const unsigned long long left = both - stores(true).resident;
        CHILD_CHECK(left >= size, left <= size + 8192, bytes[size - 1] == 'x');
    }
    CHILD_CHECK(given.map_const()[5000] == 'x');
    given.reduce_working_set(); // as it waits in the cache
    CHILD_CHECK(both - stores(true).resident >= size);
    MEM_MemPager::GetHandle()->ClearCache();
    MEM_PagerInfo empty;
    CHILD_CHECK((given.reduce_working_set(), stores(true).resident == 0));
    CHILD_CHECK(empty.ReduceWorkingSet() == -1);
    return std::ranges::count(given.map_const(), 'x') == size ? 0 : 2;
}

/// Counts what it is told, by kind, and uses the library meanwhile.
struct Told {
    static void Take(const Mem_Notice& notice, void* context) noexcept
    {
        auto& own = static_cast<Told*>(context)[static_cast<int>(notice.kind)];
        ++own.notices;
        own.count += notice.count;
        own.bytes += notice.bytes;
        std::thread([&own] { own.met_a_lock |= !Mem_TestAccess::TryAllLocks(); }).join();
        const piece<char> another(9 * MiB);
    }
    long notices = 0;
    unsigned count = 0;
    unsigned long long bytes = 0;
    bool met_a_lock = false;
};

CHILD_TEST(Display, IsToldOfSpillingAndOfStormsOnceASecond, InChild)
{
    const TempFolder temp;
    Configure(0, temp.path);
    Told told[2];
    MEM_MemPager::SetNoticeHook(Told::Take, told);
    const auto begin = std::chrono::steady_clock::now();
    MEM_PagerInfo infos[3], *all[] = {infos, infos + 1, infos + 2};
    for (MEM_PagerInfo* info : all)
        CHILD_CHECK(MEM_MemPager::GetHandle()->Allocate(9 * MiB, info, 0) == 0, info->Unmap() == 0);
    for (int i = 0; i < 30; ++i) // 27 MB, where 20 may be mapped
        CHILD_CHECK(infos[i % 3].Map() == 0, infos[i % 3].Unmap() == 0);
    const auto seconds = std::chrono::steady_clock::now() - begin;
    const long most = 1 + std::chrono::floor<std::chrono::seconds>(seconds).count();
    CHILD_CHECK(told[0].notices >= 1, told[0].notices <= most, told[0].bytes >= 9 * MiB);
    CHILD_CHECK(told[1].notices >= 1, told[1].notices <= most, told[1].bytes > 20 * MiB);

    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    const Told before = told[1];
    {
        const Mem_PagerInfoVecLockGuard locks(MEM_MemPager::GetHandle(), all, 3);
        for (int i = 0; i < 9; ++i)
            CHILD_CHECK(infos[i % 3].Map() == 0, infos[i % 3].Unmap() == 0);
        CHILD_CHECK(told[1].notices == before.notices);
    }
    CHILD_CHECK(told[1].notices == before.notices + 1, told[1].count > before.count + 1);
    infos[0].Release();
    CHILD_CHECK(MEM_MemPager::GetHandle()->Allocate(9 * MiB, infos, 0) == 0);
    CHILD_CHECK(told[0].count >= 4, told[0].count * 9ull * MiB == told[0].bytes);
    CHILD_CHECK(!told[0].met_a_lock, !told[1].met_a_lock);
    MEM_MemPager::SetNoticeHook(nullptr, nullptr);
    return 0;
}

} // namespace
