// How many pages of this process's views are in physical memory: its table of pages tells, where
// the maps' own figures would cost a walk over all maps of the process.

#include "Platform/Posix/Descriptors.h"
#include "Platform/Posix/Failure.h"
#include "Platform/Posix/Fork.h"
#include "Platform/Posix/Inspection.h"
#include "Platform/Posix/Paths.h"
#include "Platform/Posix/Scoped.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <iterator>

#include <fcntl.h>
#include <unistd.h>

namespace
{

/// The first page of a stretch, and how many there are.
struct Pages {
    Pages(const void* view, std::uint64_t size)
        : first(reinterpret_cast<std::uintptr_t>(view) / page_size()),
          count((size + page_size() - 1) / page_size())
    {
    }

    static std::uint64_t page_size() { return static_cast<std::uint64_t>(getpagesize()); }

    std::uint64_t first;
    std::uint64_t count;
};

/// Takes some pages off the front and counts those that are there. The table has a word for each
/// page, whose highest bit says so. @return false with errno.
bool count_some(int table, Pages& pages, std::uint64_t& resident)
{
    std::uint64_t words[512];
    const std::size_t wanted = std::min<std::uint64_t>(pages.count, std::size(words));
    const auto at = static_cast<off_t>(pages.first * sizeof *words);
    const ssize_t got = pread(table, words, wanted * sizeof *words, at);
    if (got < static_cast<ssize_t>(sizeof *words))
        return got < 0 ? false : Fail(ENODATA);
    const std::size_t read = static_cast<std::size_t>(got) / sizeof *words;
    resident += static_cast<std::uint64_t>(
        std::count_if(words, words + read, [](auto word) { return word >> 63 != 0; }));
    pages.first += read;
    pages.count -= read;
    return true;
}

} // namespace

bool PosixInspection::ResidentBytes(Platform::Mappings::Views& views, std::uint64_t& bytes)
{
    const NoFork whole;
    // The thread's own: the first thread of a process can have ended.
    const ScopedFile table(OpenDescriptor("/proc/thread-self/pagemap", O_RDONLY));
    if (!Reported(static_cast<bool>(table)))
        return false;
    std::uint64_t resident = 0;
    void* view = nullptr;
    for (std::uint64_t size = 0; views.Next(view, size);)
        for (Pages pages(view, size); pages.count != 0;)
            if (!Reported(count_some(table.Get(), pages, resident)))
                return false;
    bytes = resident * Pages::page_size();
    return true;
}
