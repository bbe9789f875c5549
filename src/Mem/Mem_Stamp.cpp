#include "Mem/Mem_Stamp.h"

#include "Platform/CoarseTime.h"
#include "Platform/PerThread.h"

#include <algorithm>
#include <atomic>

namespace
{
constexpr int kCountBits = 24; // the rest is enough for 17 years without a restart

PLATFORM_PER_THREAD PerThread<std::uint64_t> t_last{0};

/// The latest turn: twice the time at which a thread has taken it.
struct alignas(64) Turn {
    std::atomic<std::uint64_t> number = 1; // nobody's
};
constinit Turn s_turn;

/// For a thread whose turn isn't the latest, or that has counted to the end of it.
[[gnu::noinline]] std::uint64_t stamp_of_another_turn(std::uint64_t turn)
{
    const std::uint64_t now = 2 * Platform::CoarseMilliseconds();
    std::uint64_t first = 0;
    if (now > turn && s_turn.number.compare_exchange_strong(turn, now, std::memory_order_relaxed)) {
        first = now << kCountBits;
    } else {
        first = (turn - 1) << kCountBits; // `turn` was taken in this tick
    }
    return *t_last = std::max(*t_last + 1, first);
}
} // namespace

std::uint64_t Mem_NextStamp() noexcept
{
    const std::uint64_t turn = s_turn.number.load(std::memory_order_relaxed);
    const std::uint64_t next = *t_last + 1;
    if (next >> kCountBits != turn)
        return stamp_of_another_turn(turn);
    return *t_last = next;
}
