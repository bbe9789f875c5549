#include "Platform/Posix/HugePages.h"

#include "Platform/KeepErrno.h"
#include "Platform/Posix/Lines.h"
#include "Platform/Posix/Mappings.h"
#include "Platform/Posix/MemoryLimits.h"
#include "Platform/Posix/Populate.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <ctime>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace
{

constinit std::atomic<bool> are_in_use = false;

bool system_has_them()
{
    static const bool has = [] {
        Lines lines("/sys/kernel/mm/transparent_hugepage/hpage_pmd_size");
        std::string_view line;
        return lines.Next(line) && line == "2097152";
    }();
    return has;
}

std::uintptr_t number_of(const void* address)
{
    return reinterpret_cast<std::uintptr_t>(address);
}

/// @return null if there are none.
char* reserve_addresses(void* wish, std::size_t size)
{
    constexpr int flags = MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE;
    void* const begin = mmap(wish, size, PROT_NONE, flags, -1, 0);
    return begin == MAP_FAILED ? nullptr : static_cast<char*>(begin);
}

/// The part of wider addresses that begins where a huge page could.
char* reserve_within(std::size_t size)
{
    const auto page = static_cast<std::size_t>(getpagesize());
    const std::size_t length = (size + page - 1) / page * page;
    const std::size_t spare = HugePage - page;
    char* const wide = reserve_addresses(nullptr, length + spare);
    if (wide == nullptr)
        return nullptr;
    const std::size_t front = (HugePage - number_of(wide) % HugePage) % HugePage;
    const std::size_t back = spare - front;
    if ((front == 0 || munmap(wide, front) == 0) &&
        (back == 0 || munmap(wide + front + length, back) == 0))
        return wide + front;
    munmap(wide, length + spare);
    return nullptr;
}

// Asking for them ------------------------------------------------------------------------------

/// Nanoseconds of a clock.
std::int64_t now(clockid_t clock = CLOCK_MONOTONIC)
{
    timespec time{};
    clock_gettime(clock, &time);
    return time.tv_sec * std::int64_t{1'000'000'000} + time.tv_nsec;
}

/// Where the system had none, or had to make room for them first, memory is in pieces: asking again
/// at once would only take time.
constinit std::atomic<std::int64_t> not_asked_before = 0;

/// Whether the last ones took longer than their small pages do. One alone may be by chance.
constinit std::atomic<bool> last_was_dear = false;

void pause_for(std::int64_t nanoseconds)
{
    not_asked_before.store(now() + nanoseconds, std::memory_order_relaxed);
}

bool may_be_asked_for()
{
    return now() >= not_asked_before.load(std::memory_order_relaxed);
}

/// The system makes one of what is there already, so each begins with a page.
bool begin_each(int file, std::uint64_t offset, std::uint64_t size)
{
    const auto page = static_cast<off_t>(getpagesize());
    for (std::uint64_t at = offset; at < offset + size; at += HugePage)
        if (fallocate(file, 0, static_cast<off_t>(at), page) != 0)
            return false;
    return true;
}

void ask_for(void* bytes, std::uint64_t size)
{
    constexpr std::int64_t pause = 2'000'000'000;
    constexpr std::int64_t dear = 2'000'000; // for each; its small pages take less
    const std::int64_t before = now(CLOCK_THREAD_CPUTIME_ID);
    const bool refused = madvise(bytes, size, CollapseAdvice) != 0 && errno != EAGAIN;
    const std::int64_t took = now(CLOCK_THREAD_CPUTIME_ID) - before;
    const bool is_dear = took > dear * static_cast<std::int64_t>(size / HugePage);
    if (refused)
        pause_for(pause);
    else if (last_was_dear.exchange(is_dear, std::memory_order_relaxed) && is_dear)
        pause_for(20 * took);
}

/// Options of a file system come last in its line of the table of mounts.
HugePolicy policy_of(std::string_view options)
{
    for (std::string_view option; !options.empty();) {
        option = take(options, ",");
        if (option == "huge=always")
            return HugePolicy::Always;
        if (option == "huge=within_size")
            return HugePolicy::WithinSize;
        if (option == "huge=advise")
            return HugePolicy::Advise;
    }
    return HugePolicy::Never;
}

/// A line of the table of mounts is "id parent device root point options ... - kind source
/// options".
HugePolicy policy_in_table(dev_t device)
{
    if (!system_has_them())
        return HugePolicy::Never;
    char wanted[32];
    std::snprintf(wanted, sizeof wanted, "%u:%u", major(device), minor(device));
    Lines lines("/proc/self/mountinfo");
    for (std::string_view line; lines.Next(line);) {
        take(line, " ");
        take(line, " ");
        if (take(line, " ") == wanted)
            return policy_of(line.substr(line.rfind(' ') + 1));
    }
    return HugePolicy::Never;
}

/// The number that a text begins with, after spaces.
std::uint64_t number_in(std::string_view text, int base)
{
    std::uint64_t number = 0;
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    std::from_chars(text.data(), text.data() + text.size(), number, base);
    return number;
}

} // namespace

HugePolicy HugePolicyOf(int file)
{
    static constinit std::atomic<std::uint64_t> known =
        0; // device and policy, and 1 if there is any
    const KeepErrno keep;
    struct stat status;
    if (fstat(file, &status) != 0)
        return HugePolicy::Never;
    const std::uint64_t device = std::uint64_t{status.st_dev} << 3 | 1;
    std::uint64_t now = known.load(std::memory_order_relaxed);
    if ((now & ~std::uint64_t{6}) != device) {
        now = device | static_cast<std::uint64_t>(policy_in_table(status.st_dev)) << 1;
        known.store(now, std::memory_order_relaxed);
    }
    return static_cast<HugePolicy>(now >> 1 & 3);
}

bool HugePagesAreInUse()
{
    return are_in_use.load(std::memory_order_relaxed);
}

void* PlaceForView(std::uint64_t size, void* wish)
{
    if (size < HugePage || !system_has_them())
        return nullptr;
    const KeepErrno keep;
    if (wish != nullptr) {
        char* const place = reserve_addresses(wish, size);
        if (place == nullptr || number_of(place) % HugePage == 0)
            return place;
        munmap(place, size);
    }
    return reserve_within(size);
}

HugeFile::HugeFile(int file, std::uint64_t size)
    : m_file(file), m_size(size), m_policy(size < HugePage ? HugePolicy::Never : HugePolicyOf(file))
{
    const bool is_offered = m_policy != HugePolicy::Never;
    if (is_offered || may_be_asked_for())
        are_in_use.store(true, std::memory_order_relaxed);
    if (m_policy == HugePolicy::Advise || (!is_offered && may_be_asked_for()))
        make_view();
}

HugeFile::~HugeFile()
{
    const KeepErrno keep;
    if (m_view != nullptr)
        munmap(m_view, m_size);
}

void HugeFile::make_view()
{
    const KeepErrno keep;
    void* const place = PlaceForView(m_size);
    if (place == nullptr)
        return;
    void* const view =
        mmap(place, m_size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, m_file, 0);
    if (view == MAP_FAILED) {
        munmap(place, m_size);
        return;
    }
    m_view = static_cast<char*>(view);
    if (m_policy == HugePolicy::Advise)
        madvise(view, m_size, MADV_HUGEPAGE);
}

/// Reserving doesn't heed advice, a touch does. What couldn't be had is reserved then.
void HugeFile::Offer(std::uint64_t offset, std::uint64_t size) const
{
    const KeepErrno keep;
    const std::uint64_t whole = size / HugePage * HugePage;
    if (whole == 0 || offset % HugePage != 0 ||
        (m_policy == HugePolicy::Never && m_view == nullptr) ||
        ftruncate(m_file, static_cast<off_t>(offset + whole)) != 0 || m_view == nullptr)
        return;
    if (m_policy == HugePolicy::Never && may_be_asked_for() && begin_each(m_file, offset, whole))
        ask_for(m_view + offset, whole);
    else if (m_policy == HugePolicy::Advise && CanPopulate())
        Populate(m_view + offset, whole, Populating::ToWrite);
    madvise(m_view + offset, whole, MADV_DONTNEED); // the file keeps them, they don't count as used
}

// PosixMappings ----------------------------------------------------------------------------------

/// A map's line in the table is "begin-end ...", and the lines behind it are "Key:   number kB".
std::uint64_t PosixMappings::HugeBytes(const ViewSet& views)
{
    if (!HugePagesAreInUse())
        return 0;
    const NoCancellation calm;
    std::uint64_t kibibytes = 0;
    std::uintptr_t view = 0;
    Lines lines("/proc/self/smaps");
    for (std::string_view line; lines.Next(line);) {
        const std::string_view key = take(line, " ");
        if (!key.ends_with(':'))
            view = number_in(key, 16);
        else if (key == "ShmemPmdMapped:")
            if (const std::uint64_t huge = number_in(line, 10); huge != 0)
                // NOLINTNEXTLINE(performance-no-int-to-ptr): it was read as a number
                kibibytes += views.Has(reinterpret_cast<const void*>(view)) ? huge : 0;
    }
    return kibibytes << 10;
}

void PosixMappings::PreferHugePages(void* memory, std::uint64_t size)
{
    constexpr std::uint64_t least = 2 * HugePage;
    if (size < least)
        return;
    const NoCancellation calm;
    const KeepErrno keep;
    const auto page = static_cast<std::uintptr_t>(getpagesize());
    const auto address = reinterpret_cast<std::uintptr_t>(memory);
    const std::uintptr_t front = (page - address % page) % page;
    const std::uintptr_t end = (address + size) / page * page;
    MemoryHeadroom headroom;
    if (std::min(headroom.LeftInGroups(), headroom.LeftOnMachine()) >= size)
        madvise(static_cast<char*>(memory) + front, end - address - front, MADV_HUGEPAGE);
}
