#include "Mem/Mem_PagerLog.h"

#include "NRVlog/Zor_Log.h"
#include "Platform/Units.h"

namespace Mem_PagerLog
{

namespace
{
constexpr char zor_log_source[] = "src/Mem/Mem_MemPager";
constexpr char kAllocate[] = "MEM_MemPager::Allocate";
constexpr char kMap[] = "MEM_MemPager::private_map";
constexpr char kHandler[] = "clear_cache_handler";
} // namespace

void AllocatesAgainWithoutCache(std::uint64_t held, std::uint64_t cached)
{
    ZOR_LOG(kAllocate, 5,
            "Allocate: Couldn't allocate shared memory, but we can still free MEM cache and try "
            "again (Details: User mapped memory size=%.2fMB, Cached mapped memory "
            "size=%.2fMB)\n",
            InMb(held), InMb(cached));
}

void AllocatedWithoutCache()
{
    ZOR_LOG(kAllocate, 5,
            "Allocate: Succeeded re-allocating shared memory (after we cleared the cache). "
            "Everything is ok now.\n");
}

void PieceIsRefused(unsigned int size)
{
    ZOR_LOG(kAllocate, 3,
            "Process couldn't allocate Shared Memory! (Details: Shared memory Allocation failed, "
            "we cleared the cache but allocation failed again)\n");
    ZOR_LOG(kAllocate, 3, "Shared memory is probably consumed. See details below:\n");
    ZOR_LOG(kAllocate, 3, "\tTried to allocate %.2fMB\n", InMb(size));
}

void MapsNothingAhead(std::uint64_t cached)
{
    ZOR_LOG(kMap, 6,
            "Process couldn't Map Shared Memory (process is out of memory), without "
            "trying to clear cache (Details: Map failed and we didn't try to clear the "
            "cache which is %.1fMB)\n",
            InMb(cached));
}

void MapsAgainWithoutCache(std::uint64_t size, std::uint64_t held, std::uint64_t cached)
{
    ZOR_LOG(kMap, 5,
            "Map: Couldn't map shared memory, but we can still free MEM cache and try again\n");
    ZOR_LOG(kMap, 5,
            "(Details: Size %.1fMB, User mapped memory=%.1fMB, Cached mapped memory=%.1fMB)\n",
            InMb(size), InMb(held), InMb(cached));
}

void MappedWithoutCache(std::uint64_t held)
{
    ZOR_LOG(kMap, 5,
            "Map: Succeeded re-mapping shared memory (after we cleared the cache). "
            "Everything is ok now (New User mapped memory is %.1fMB)\n",
            InMb(held));
}

void MapIsRefused(std::uint64_t size)
{
    ZOR_LOG(kMap, 3,
            "Process couldn't Map Shared Memory, probably because process is out of memory! "
            "(Details: Map failed, we cleared the cache but map failed again)\n");
    ZOR_LOG(kMap, 3,
            "Either a memory leak occurred, or too much memory is allocated. See details "
            "below:\n");
    ZOR_LOG(kMap, 3, "\tTried to map: %.2fMB.\n", InMb(size));
}

void CachesNothingOverTheLimit(std::uint64_t mapped, std::uint64_t limit)
{
    ZOR_LOG("MEM_MemPager::Cache", 5,
            "Cache: Won't cache the page, because total mapped <%.2fMB> is bigger than the "
            "Cache Limit <%.2fMB>\n",
            InMb(mapped), InMb(limit));
}

void CacheIsCleared(std::uint64_t old_mapped, std::uint64_t old_cached, std::uint64_t mapped)
{
    ZOR_LOG("MEM_MemPager::ClearCache", 6,
            "Cleared cache. Old Total Mapped was <%.2fMB>, from it was Cached <%.2fMB>. New Total "
            "Mapped is <%.2fMB> (No Cache)\n",
            InMb(old_mapped), InMb(old_cached), InMb(mapped));
}

void AllocationFailed(std::size_t size)
{
    ZOR_LOG(kHandler, 5,
            "clear_cache_handler: Couldn't allocate with new, but we can still free MEM cache "
            "and try again (Details: AllocatedSize=<%d bytes>)\n",
            static_cast<int>(size));
}

void HandlerFoundThePagerBusy()
{
    ZOR_LOG(kHandler, 3, "clear_cache_handler: The pager is busy, so no cache could be freed\n");
}

void HandlerFreed(std::uint64_t freed)
{
    ZOR_LOG(kHandler, 5,
            "clear_cache_handler: Succeeded freeing mem cache (Details: Freed %.2fMB from "
            "Other cached memory)\n",
            InMb(freed));
}

void HandlerFoundNoCache()
{
    ZOR_LOG(kHandler, 5, "clear_cache_handler: Didn't find any cache to free...\n");
}

void HandlerHasHelped()
{
    ZOR_LOG(kHandler, 5,
            "clear_cache_handler: Succeeded clearing cache, everything is ok now. Will try to "
            "allocate again..\n");
}

void AllocationIsRefused(std::size_t size)
{
    ZOR_LOG(kHandler, 2,
            "Process is out of memory, and about to crash! (Details: new Allocation failed, and we "
            "had no more cache to free)\n");
    ZOR_LOG(kHandler, 2,
            "Either a memory leak occurred, or too much memory is allocated. See details "
            "below:\n");
    ZOR_LOG(kHandler, 2, "\tTried to allocate: %.2fMB\n", InMb(size));
}

void AllocationAnswersNull(std::size_t size)
{
    ZOR_LOG(kHandler, 3,
            "An allocation of the process has failed, and it may go on without (Details: malloc "
            "failed, and we had no more cache to free)\n");
    ZOR_LOG(kHandler, 3, "\tTried to allocate: %.2fMB\n", InMb(size));
}

} // namespace Mem_PagerLog
