#include "Platform/Posix/MemoryLimits.h"

#include "Platform/Posix/Limits.h"
#include "Platform/Posix/Lines.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <limits>
#include <optional>
#include <string_view>

#include <sys/resource.h>
#include <sys/sysinfo.h>
#include <unistd.h>

namespace
{

constexpr std::uint64_t no_limit = std::numeric_limits<std::uint64_t>::max();

/// What other processes may take meanwhile.
constexpr std::uint64_t margin = std::uint64_t{16} << 20;

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

/// In bytes; 0 if it isn't told.
std::uint64_t row(std::string_view key)
{
    return kibibytes(sum("/proc/meminfo", {"", {key, ""}}).value_or(0));
}

std::uint64_t rest(std::uint64_t all, std::uint64_t taken)
{
    return all - std::min(all, taken);
}

} // namespace

std::uint64_t ControlGroupLimit(const char* groups, const char* mounts)
{
    const GroupFolders folders(groups, mounts);
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

Commitment ReadCommitment()
{
    return {row("Committed_AS:"), row("CommitLimit:")};
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

MachineNow ReadMachine()
{
    return {row("MemTotal:"), row("MemAvailable:"), row("SwapTotal:"), row("SwapFree:")};
}

std::uint64_t AddressSpaceInUse()
{
    Lines lines("/proc/self/statm");
    std::string_view line;
    return lines.Next(line) ? number_at_front(line, 0) * static_cast<unsigned>(getpagesize()) : 0;
}

std::uint64_t AddressSpaceLimit()
{
    constexpr std::uint64_t all = std::uint64_t{1} << 47;
    return std::min(SoftLimit(RLIMIT_AS), all);
}

MemoryRoom::MemoryRoom() : MemoryRoom(GroupFolders::OfThisProcess(), "/proc/meminfo") {}

MemoryRoom::MemoryRoom(const GroupFolders& folders, const char* machine)
    : m_machine(machine), m_folders(folders)
{
    const std::uint64_t most = MachineMemory(); // a limit above is none
    for (std::size_t at = 0; at < m_folders.Count(); ++at) {
        const GroupVersion& version = m_folders.Version(at);
        const std::uint64_t limit = read_limit(m_folders.Path(at), version.limit_file);
        if (limit < most)
            m_groups[m_count++] = {&version, m_folders.Path(at), limit};
    }
}

bool MemoryRoom::Bears(std::uint64_t more, std::uint64_t done) const
{
    const auto bears = [wanted = more + margin, done](const Group& group) {
        return group_bears(group, wanted, done);
    };
    if (machine_bears(more + margin, done) && std::all_of(m_groups, m_groups + m_count, bears))
        return true;
    errno = ENOMEM;
    return false;
}

/// The table of pages is long: it is read only if it matters.
bool MemoryRoom::group_bears(const Group& group, std::uint64_t wanted, std::uint64_t done)
{
    const std::uint64_t usage = read_limit(group.folder, group.version->usage_file);
    if (usage == no_limit || usage + wanted <= group.limit)
        return true;
    const Table& table = group.version->reclaimable;
    const std::uint64_t reclaimable =
        sum(GroupFile(group.folder, table.file).path, table).value_or(0);
    if (usage + wanted <= group.limit + reclaimable)
        return true;
    const std::uint64_t most = group.limit + reclaimable + done;
    MeetLimit(Limit::Group, group.limit, most - std::min(most, usage));
    return false;
}

bool MemoryRoom::machine_bears(std::uint64_t wanted, std::uint64_t done) const
{
    const std::optional<std::uint64_t> left = sum(m_machine, {"", {"MemAvailable:", "SwapFree:"}});
    if (!left || wanted <= kibibytes(*left))
        return true;
    MeetLimit(Limit::Machine, MachineMemory(), kibibytes(*left) + done);
    return false;
}

std::uint64_t MemoryRoom::LeftInGroups() const
{
    std::uint64_t left = no_limit;
    for (std::size_t at = 0; at < m_count; ++at) {
        const auto& [version, folder, limit] = m_groups[at];
        const Table& table = version->reclaimable;
        const std::uint64_t cached = sum(GroupFile(folder, table.file).path, table).value_or(0);
        const std::uint64_t usage = read_limit(folder, version->usage_file);
        if (usage != no_limit)
            left = std::min(left, rest(limit + cached, usage + margin));
    }
    return left;
}

std::uint64_t MemoryRoom::LeftOnMachine() const
{
    const std::optional<std::uint64_t> left = sum(m_machine, {"", {"MemAvailable:", "SwapFree:"}});
    return left ? rest(kibibytes(*left), margin) : no_limit;
}
