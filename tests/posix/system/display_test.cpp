// What a host shows its users. Hunts bytes that are counted in another store than they lie in.

#include "mempager/mempager.h"

#include "posix/support/Children.h"
#include "support/PagerWorld.h"
#include "support/ThisProcess.h"

#include <gtest/gtest.h>

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

} // namespace
