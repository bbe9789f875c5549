#include "Platform/Posix/MemoryLimits.h"

#include "Platform/Posix/AddressSpace.h"
#include "Platform/Posix/Limits.h"
#include "Platform/Posix/Lines.h"
#include "Platform/Posix/Process.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <limits>
#include <optional>
#include <string_view>
#include <utility>

#include <sys/resource.h>
#include <sys/sysinfo.h>
#include <unistd.h>

namespace
{

constexpr std::uint64_t no_limit = std::numeric_limits<std::uint64_t>::max();

/// What other processes may take meanwhile.
constexpr std::uint64_t margin = std::uint64_t{16} << 20;

/// The most that margin_in() can be.
std::uint64_t largest_margin(std::uint64_t limit)
{
    return std::max(margin, limit / 2);
}

/// What is to stay free in a group. The processes of a full one take each other's copies of
/// programs and files away and read them anew, until none gets on. `each` is what each of them
/// needs at least, measured with pieces in temp files; all together get no more than half of the
/// limit. To count them costs more than all else of a look.
std::uint64_t margin_in(const char* folder, std::uint64_t limit)
{
    constexpr std::uint64_t each = std::uint64_t{4} << 20;
    std::uint64_t others = 0;
    Lines lines(GroupFile(folder, "cgroup.procs").path);
    for (std::string_view line; lines.Next(line);)
        ++others;
    others -= std::min<std::uint64_t>(others, 1);
    return std::clamp(margin + others * each, margin, largest_margin(limit));
}

std::uint64_t number_at_front(std::string_view text, std::uint64_t otherwise)
{
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    std::from_chars(text.data(), text.data() + text.size(), otherwise);
    return otherwise;
}

/// "max", and a file that isn't there, are no limit.
std::uint64_t read_limit(const char* folder, const char* file)
{
    Lines lines(GroupFile(folder, file).path);
    std::string_view line;
    return lines.Next(line) ? number_at_front(line, no_limit) : no_limit;
}

/// @return none if neither key is there.
std::optional<std::uint64_t> sum(const char* path, const Table& table)
{
    std::optional<std::uint64_t> total;
    Lines lines(path);
    for (std::string_view line; lines.Next(line);) {
        const std::string_view key = take(line, " ");
        if (key == table.keys[0] || key == table.keys[1])
            total = total.value_or(0) + number_at_front(line, 0);
    }
    return total;
}

std::uint64_t kibibytes(std::uint64_t number)
{
    return number << 10;
}

std::uint64_t rest(std::uint64_t all, std::uint64_t taken)
{
    return all - std::min(all, taken);
}

} // namespace

std::uint64_t ControlGroupLimit(const GroupFolders& folders)
{
    std::uint64_t limit = no_limit;
    for (std::size_t at = 0; at < folders.Count(); ++at)
        limit = std::min(limit, read_limit(folders.Path(at), folders.Version(at).limit_file));
    return limit;
}

std::uint64_t MachineMemory()
{
    struct sysinfo information;
    if (sysinfo(&information) != 0)
        return no_limit;
    return static_cast<std::uint64_t>(information.totalram) * information.mem_unit;
}

MemoryTable::MemoryTable()
{
    const std::pair<std::string_view, std::uint64_t&> rows[] = {
        {"MemTotal:", total},           {"MemAvailable:", available},
        {"SwapTotal:", swap},           {"SwapFree:", available_swap},
        {"CommitLimit:", commit_limit}, {"Committed_AS:", committed}};
    Lines lines("/proc/meminfo");
    for (std::string_view line; lines.Next(line);) {
        const std::string_view key = take(line, " ");
        for (const auto& [name, number] : rows)
            if (key == name)
                number = kibibytes(number_at_front(line, 0));
    }
}

bool KeepsToCommitment()
{
    Lines lines("/proc/sys/vm/overcommit_memory");
    std::string_view line;
    return lines.Next(line) && line == "2";
}

std::uint64_t SoftLimit(int resource)
{
    rlimit limit{};
    return getrlimit(static_cast<__rlimit_resource>(resource), &limit) == 0 ? limit.rlim_cur
                                                                            : RLIM_INFINITY;
}

std::uint64_t AddressSpaceInUse()
{
    Lines lines("/proc/self/statm");
    std::string_view line;
    return lines.Next(line) ? number_at_front(line, 0) * static_cast<unsigned>(getpagesize()) : 0;
}

std::uint64_t AddressSpaceLimit()
{
    return std::min(SoftLimit(RLIMIT_AS), EndOfAddresses);
}

std::uint64_t PosixProcess::MemoryLimit()
{
    const NoCancellation calm;
    return std::min(MachineMemory(), ControlGroupLimit(GroupFolders::OfThisProcess()));
}

Platform::Process::Memory PosixProcess::MemoryNow()
{
    const NoCancellation calm;
    const MemoryTable now;
    return {now.total,     now.available,       now.swap,       now.available_swap,
            now.committed, AddressSpaceLimit(), EndOfAddresses, MostMaps()};
}

MemoryHeadroom::MemoryHeadroom()
    : m_machine("/proc/meminfo"), m_folders(GroupFolders::OfThisProcess())
{
    find_limits();
}

MemoryHeadroom::MemoryHeadroom(const GroupFolders& folders, const char* machine)
    : m_machine(machine), m_folders(folders)
{
    find_limits();
}

void MemoryHeadroom::find_limits()
{
    const std::uint64_t most = MachineMemory(); // a limit above is none
    for (std::size_t at = 0; at < m_folders.Count(); ++at) {
        const GroupVersion& version = m_folders.Version(at);
        const std::uint64_t limit = read_limit(m_folders.Path(at), version.limit_file);
        if (limit < most)
            m_groups[m_count++] = {&version, m_folders.Path(at), limit, std::nullopt};
    }
}

std::uint64_t MemoryHeadroom::Grants(std::uint64_t more, std::uint64_t done, std::uint64_t least)
{
    constexpr std::uint64_t shares = 64;
    const std::uint64_t smallest = std::min(more, least);
    std::uint64_t headroom = headroom_on_machine(smallest, done);
    for (std::size_t at = 0; at < m_count; ++at)
        headroom = std::min(headroom, headroom_in(m_groups[at], smallest, shares * more, done));
    if (smallest <= headroom)
        return std::clamp(headroom / shares, smallest, more);
    errno = ENOMEM;
    return 0;
}

std::uint64_t MemoryHeadroom::margin_of(Group& group)
{
    if (!group.margin)
        group.margin = margin_in(group.folder, group.limit);
    return *group.margin;
}

std::uint64_t MemoryHeadroom::reclaimable_in(const Group& group)
{
    const Table& table = group.version->reclaimable;
    return sum(GroupFile(group.folder, table.file).path, table).value_or(0);
}

/// The table of pages is long, and so can be that of processes: they are read only if they matter.
std::uint64_t MemoryHeadroom::headroom_in(Group& group, std::uint64_t least, std::uint64_t enough,
                                          std::uint64_t done)
{
    const std::uint64_t usage = read_limit(group.folder, group.version->usage_file);
    if (usage == no_limit || usage + largest_margin(group.limit) + enough <= group.limit)
        return enough;
    const std::uint64_t kept = margin_of(group);
    if (usage + kept + enough <= group.limit)
        return enough;
    const std::uint64_t bound = group.limit + reclaimable_in(group);
    const std::uint64_t headroom = rest(bound, usage + kept);
    if (headroom < least)
        MeetLimit(Platform::Subject::Group, group.limit, rest(bound + done, usage));
    return headroom;
}

std::uint64_t MemoryHeadroom::headroom_on_machine(std::uint64_t least, std::uint64_t done) const
{
    const std::optional<std::uint64_t> left = sum(m_machine, {"", {"MemAvailable:", "SwapFree:"}});
    if (!left)
        return no_limit;
    const std::uint64_t headroom = rest(kibibytes(*left), margin);
    if (headroom < least)
        MeetLimit(Platform::Subject::Machine, MachineMemory(), kibibytes(*left) + done);
    return headroom;
}

std::uint64_t MemoryHeadroom::LeftInGroups()
{
    std::uint64_t left = no_limit;
    for (std::size_t at = 0; at < m_count; ++at) {
        Group& group = m_groups[at];
        const std::uint64_t usage = read_limit(group.folder, group.version->usage_file);
        if (usage != no_limit)
            left =
                std::min(left, rest(group.limit + reclaimable_in(group), usage + margin_of(group)));
    }
    return left;
}

std::uint64_t MemoryHeadroom::LeftOnMachine() const
{
    return headroom_on_machine(0, 0);
}
