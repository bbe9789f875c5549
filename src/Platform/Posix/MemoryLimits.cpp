#include "Platform/Posix/MemoryLimits.h"

#include "Platform/Posix/Limits.h"
#include "Platform/Posix/Lines.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <limits>
#include <optional>
#include <string_view>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/sysinfo.h>
#include <unistd.h>

/// Files of one form: a line is "key number", with spaces before and a unit behind the number.
struct Table {
    const char* file;
    std::string_view keys[2]; ///< whose numbers are added up
};

/// How one version of control groups tells what is needed here.
struct GroupVersion {
    const char* file_system;
    const char* controller; ///< that bounds memory; "" where one tree serves all
    const char* limit_file;
    const char* usage_file;
    Table reclaimable;
};

namespace
{

constexpr GroupVersion versions[] = {
    {"cgroup",
     "memory",
     "memory.limit_in_bytes",
     "memory.usage_in_bytes",
     {"memory.stat", {"total_inactive_file", "total_active_file"}}},
    {"cgroup2",
     "",
     "memory.max",
     "memory.current",
     {"memory.stat", {"inactive_file", "active_file"}}}};

constexpr std::uint64_t no_limit = std::numeric_limits<std::uint64_t>::max();

/// What other processes may take meanwhile.
constexpr std::uint64_t margin = std::uint64_t{16} << 20;

bool lists(std::string_view list, std::string_view wanted)
{
    while (!list.empty()) {
        if (take(list, ",") == wanted)
            return true;
    }
    return false;
}

bool serves(const GroupVersion& version, std::string_view controllers)
{
    return version.controller[0] == '\0' ? controllers.empty()
                                         : lists(controllers, version.controller);
}

/// This process's group: a line is "number:controllers:path". @return false if there is none.
bool find_group(const char* groups, const GroupVersion& version, char (&group)[PATH_MAX])
{
    Lines lines(groups);
    for (std::string_view line; lines.Next(line);) {
        take(line, ":");
        if (serves(version, take(line, ":")) && line.size() < sizeof group) {
            group[line.copy(group, sizeof group - 1)] = '\0';
            return true;
        }
    }
    return false;
}

struct Mount {
    std::string_view root; ///< the group that stands at the mount point
    std::string_view point;
    std::string_view file_system;
    std::string_view options;
};

/// A line is "id parent device root point options [fields] - type source options".
Mount parse_mount(std::string_view line)
{
    Mount mount;
    std::string_view front = take(line, " - ");
    take(front, " ");
    take(front, " ");
    take(front, " ");
    mount.root = take(front, " ");
    mount.point = take(front, " ");
    mount.file_system = take(line, " ");
    take(line, " ");
    mount.options = line;
    return mount;
}

bool bears(const Mount& mount, const GroupVersion& version)
{
    return mount.file_system == version.file_system &&
           (version.controller[0] == '\0' || lists(mount.options, version.controller));
}

/// The path of a file in a group's folder.
struct GroupFile {
    GroupFile(const char* folder, const char* file)
    {
        std::snprintf(path, sizeof path, "%s/%s", folder, file);
    }
    char path[2 * PATH_MAX];
};

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

/// The group's path below the mount point; just the mount point if it isn't below it, as in a
/// container that sees the table of its host.
std::string_view path_below(std::string_view root, std::string_view group)
{
    if (root == "/")
        root = "";
    const bool below = group.starts_with(root) && group.find("..") == group.npos;
    group.remove_prefix(below ? root.size() : group.size());
    return group.starts_with('/') ? group : std::string_view();
}

/// Calls `visit` with the version and the folder of a group and of those above it.
template <class Visitor>
void visit_upwards(const GroupVersion& version, const Mount& mount, std::string_view group,
                   Visitor& visit)
{
    char folder[2 * PATH_MAX];
    const std::size_t top = mount.point.copy(folder, PATH_MAX);
    std::size_t length = top + path_below(mount.root, group).copy(folder + top, PATH_MAX - 1);
    folder[length] = '\0';
    visit(version, folder);
    while (length > top) {
        length = std::string_view(folder, length).rfind('/');
        folder[length] = '\0';
        visit(version, folder);
    }
}

/// The same for each group that bounds this process.
template <class Visitor>
void visit_groups(const char* groups, const char* mounts, Visitor visit)
{
    Lines lines(mounts);
    for (std::string_view line; lines.Next(line);) {
        const Mount mount = parse_mount(line);
        for (const GroupVersion& version : versions) {
            char group[PATH_MAX];
            if (bears(mount, version) && find_group(groups, version, group))
                visit_upwards(version, mount, group, visit);
        }
    }
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
    std::uint64_t limit = no_limit;
    visit_groups(groups, mounts, [&limit](const GroupVersion& version, const char* folder) {
        limit = std::min(limit, read_limit(folder, version.limit_file));
    });
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

MemoryRoom::MemoryRoom(const char* groups, const char* mounts, const char* machine)
    : m_machine(machine)
{
    const std::uint64_t most = MachineMemory(); // a limit above is none
    visit_groups(groups, mounts, [this, most](const GroupVersion& version, const char* folder) {
        const std::uint64_t limit = read_limit(folder, version.limit_file);
        if (limit < most)
            add(version, folder, limit);
    });
}

void MemoryRoom::add(const GroupVersion& version, const char* folder, std::uint64_t limit)
{
    const std::size_t size = std::strlen(folder) + 1;
    if (m_count == std::size(m_groups) || size > sizeof m_folders - m_used)
        return;
    char* kept = static_cast<char*>(std::memcpy(m_folders + m_used, folder, size));
    m_used += size;
    m_groups[m_count++] = {&version, kept, limit};
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
