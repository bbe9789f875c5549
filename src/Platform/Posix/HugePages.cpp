#include "Platform/Posix/HugePages.h"

#include "Platform/KeepErrno.h"
#include "Platform/Posix/Lines.h"
#include "Platform/Posix/Mappings.h"
#include "Platform/Posix/MemoryLimits.h"
#include "Platform/Posix/Populate.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cstdio>

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
    Lines lines("/sys/kernel/mm/transparent_hugepage/hpage_pmd_size");
    std::string_view line;
    return lines.Next(line) && line == "2097152";
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
std::uint64_t number_of(std::string_view text, int base)
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

HugeFile::HugeFile(int file, std::uint64_t size)
    : m_file(file), m_size(size), m_policy(size < HugePage ? HugePolicy::Never : HugePolicyOf(file))
{
    if (m_policy == HugePolicy::Never)
        return;
    are_in_use.store(true, std::memory_order_relaxed);
    if (m_policy != HugePolicy::Advise)
        return;
    const KeepErrno keep;
    void* const view = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    if (view == MAP_FAILED)
        return;
    m_view = view;
    madvise(view, size, MADV_HUGEPAGE);
}

HugeFile::~HugeFile()
{
    const KeepErrno keep;
    if (m_view != nullptr)
        munmap(m_view, m_size);
}

/// Reserving doesn't heed advice, a touch does. What a touch couldn't have is reserved then.
void HugeFile::Offer(std::uint64_t offset) const
{
    const KeepErrno keep;
    if (m_policy == HugePolicy::Never ||
        ftruncate(m_file, static_cast<off_t>(offset + HugePage)) != 0)
        return;
    if (m_view != nullptr && CanPopulate())
        Populate(static_cast<char*>(m_view) + offset, HugePage, Populating::ToWrite);
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
            view = number_of(key, 16);
        else if (key == "ShmemPmdMapped:")
            if (const std::uint64_t huge = number_of(line, 10); huge != 0)
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
    const std::uintptr_t begin = (address + page - 1) / page * page;
    const std::uintptr_t end = (address + size) / page * page;
    const MemoryHeadroom headroom;
    if (std::min(headroom.LeftInGroups(), headroom.LeftOnMachine()) >= size)
        madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
}
