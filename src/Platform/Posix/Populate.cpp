#include "Platform/Posix/Populate.h"

#include "Platform/KeepErrno.h"
#include "Platform/Posix/Descriptors.h"
#include "Platform/Posix/Scoped.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace
{

// The C library's headers may be older than the system.
constexpr int populate_read = 22;
constexpr int populate_write = 23;

enum class Known { NotYet, Can, Cannot };

constinit std::atomic<Known> known = Known::NotYet;

int advice_for(Populating how)
{
    if (how == Populating::Soon)
        return MADV_WILLNEED;
    return how == Populating::ToRead ? populate_read : populate_write;
}

// Whether reads find neighbours ----------------------------------------------------------------

constexpr std::size_t stretch = 32; // pages

std::size_t page_size()
{
    return static_cast<std::size_t>(getpagesize());
}

/// How many pages of a stretch the process has at hand; 0 where the system doesn't tell.
std::size_t pages_at_hand(const char* begin)
{
    constexpr std::uint64_t at_hand = std::uint64_t{1} << 63;
    std::uint64_t pages[stretch] = {};
    const ScopedFile table(OpenDescriptor("/proc/self/pagemap", O_RDONLY));
    const auto first = reinterpret_cast<std::uintptr_t>(begin) / page_size() * sizeof pages[0];
    if (!table ||
        pread(table.Get(), pages, sizeof pages, static_cast<off_t>(first)) != sizeof pages)
        return 0;
    return static_cast<std::size_t>(
        std::ranges::count_if(pages, [](std::uint64_t page) { return (page & at_hand) != 0; }));
}

/// Reads one byte of a stretch that is in memory, but not at hand.
bool look_at_neighbours()
{
    constexpr std::size_t enough = 8; // populating takes longer then
    const KeepErrno keep;
    const std::size_t size = stretch * page_size();
    void* const memory =
        mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        return false;
    auto* const bytes = static_cast<volatile char*>(memory);
    for (std::size_t at = 0; at < size; at += page_size())
        bytes[at] = 1;
    madvise(memory, size, MADV_DONTNEED);
    static_cast<void>(bytes[size / 2]);
    const bool has_found = pages_at_hand(static_cast<char*>(memory)) >= enough;
    munmap(memory, size);
    return has_found;
}

} // namespace

bool ReadsFindNeighbours()
{
    static const bool find = look_at_neighbours();
    return find;
}

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
    const std::uintptr_t front = reinterpret_cast<std::uintptr_t>(bytes) % page;
    const int advice = advice_for(how);
    return madvise(static_cast<char*>(bytes) - front, front + size, advice) == 0;
}
