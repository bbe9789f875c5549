#include "Platform/Posix/Populate.h"

#include "Platform/KeepErrno.h"

#include <atomic>
#include <cerrno>
#include <cstddef>

#include <sys/mman.h>
#include <unistd.h>

namespace
{

// The C library's headers may be older than the system.
constexpr int populate_read = 22;
constexpr int populate_write = 23;

enum class Known { NotYet, Can, Cannot };

constinit std::atomic<Known> known = Known::NotYet;

} // namespace

/// Advice on no bytes at all does nothing, but advice that the system doesn't know is an error.
bool CanPopulate()
{
    Known answer = known.load(std::memory_order_relaxed);
    if (answer == Known::NotYet) {
        const KeepErrno keep;
        const bool can = madvise(nullptr, 0, populate_read) == 0;
        answer = can ? Known::Can : Known::Cannot;
        known.store(answer, std::memory_order_relaxed);
    }
    return answer == Known::Can;
}

bool Populate(void* bytes, std::uint64_t size, Populating how)
{
    const auto page = static_cast<std::uintptr_t>(getpagesize());
    const auto begin = reinterpret_cast<std::uintptr_t>(bytes);
    const std::uintptr_t front = begin % page;
    const int advice = how == Populating::ToRead ? populate_read : populate_write;
    return madvise(reinterpret_cast<void*>(begin - front), front + size, advice) == 0;
}
