#ifndef MEM_PAGERLOG_H
#define MEM_PAGERLOG_H

#include <cstddef>
#include <cstdint>

/// The pager's longer log lines, by what has happened, so that its functions show their story. All
/// sizes are bytes. Nothing here allocates or throws.
namespace Mem_PagerLog
{

// A request for a piece.
void AllocatesAgainWithoutCache(std::uint64_t held, std::uint64_t cached);
void AllocatedWithoutCache();
void PieceIsRefused(unsigned int size);

// A map that failed.
void MapsNothingAhead(std::uint64_t cached);
void MapsAgainWithoutCache(std::uint64_t size, std::uint64_t held, std::uint64_t cached);
void MappedWithoutCache(std::uint64_t held);
void MapIsRefused(std::uint64_t size);

// The cache.
void CachesNothingOverTheLimit(std::uint64_t mapped, std::uint64_t limit);
void CacheIsCleared(std::uint64_t old_mapped, std::uint64_t old_cached, std::uint64_t mapped);

// The handler of failed allocations.
void AllocationFailed(std::size_t size);
void HandlerFoundThePagerBusy();
void HandlerFreed(std::uint64_t freed);
void HandlerFoundNoCache();
void HandlerHasHelped();
void AllocationIsRefused(std::size_t size);
void AllocationAnswersNull(std::size_t size);

} // namespace Mem_PagerLog

#endif
