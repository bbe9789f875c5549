#include "Platform/Posix/MemoryLimits.h"

#include "Platform/Posix/Scoped.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cstdio>
#include <cstring>
#include <limits>
#include <string_view>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/sysinfo.h>
#include <unistd.h>

namespace
{

constexpr std::uint64_t no_limit = std::numeric_limits<std::uint64_t>::max();

/// The lines of a file, read through a buffer of fixed size. A longer line comes in pieces.
class Lines
{
public:
    explicit Lines(const char* path) : m_file(open(path, O_RDONLY | O_CLOEXEC)) {}

    bool Next(std::string_view& line)
    {
        if (line_length() == none)
            fill();
        if (m_begin == m_end)
            return false;
        line = {m_buffer + m_begin, std::min(line_length(), m_end - m_begin)};
        m_begin = std::min(m_begin + line.size() + 1, m_end);
        return true;
    }

private:
    static constexpr std::size_t none = std::string_view::npos;

    std::size_t line_length() const
    {
        return std::string_view(m_buffer + m_begin, m_end - m_begin).find('\n');
    }

    /// Moves the rest to the front and reads behind it.
    void fill()
    {
        std::memmove(m_buffer, m_buffer + m_begin, m_end - m_begin);
        m_end -= m_begin;
        m_begin = 0;
        while (m_end < sizeof m_buffer && read_more()) {
        }
    }

    bool read_more()
    {
        const ssize_t got = read(m_file.Get(), m_buffer + m_end, sizeof m_buffer - m_end);
        m_end += static_cast<std::size_t>(std::max<ssize_t>(got, 0));
        return got > 0 || (got < 0 && errno == EINTR);
    }

    const ScopedFile m_file;
    char m_buffer[8192];
    std::size_t m_begin = 0;
    std::size_t m_end = 0;
};

/// Takes the part before `separator` off the front; all if there is none.
std::string_view take(std::string_view& text, std::string_view separator)
{
    const std::size_t at = text.find(separator);
    const std::string_view part = text.substr(0, at);
    text.remove_prefix(at == text.npos ? text.size() : at + separator.size());
    return part;
}

bool lists(std::string_view list, std::string_view wanted)
{
    while (!list.empty()) {
        if (take(list, ",") == wanted)
            return true;
    }
    return false;
}

/// How one version of control groups tells what is needed here.
struct Version {
    const char* file_system;
    const char* controller; ///< that bounds memory; "" where one tree serves all
    const char* limit_file;
};

constexpr Version versions[] = {{"cgroup", "memory", "memory.limit_in_bytes"},
                                {"cgroup2", "", "memory.max"}};

bool serves(const Version& version, std::string_view controllers)
{
    return version.controller[0] == '\0' ? controllers.empty()
                                         : lists(controllers, version.controller);
}

/// This process's group: a line is "number:controllers:path". @return false if there is none.
bool find_group(const char* groups, const Version& version, char (&group)[PATH_MAX])
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

bool bears(const Mount& mount, const Version& version)
{
    return mount.file_system == version.file_system &&
           (version.controller[0] == '\0' || lists(mount.options, version.controller));
}

/// "max", and a file that isn't there, are no limit.
std::uint64_t read_limit(std::string_view folder, std::string_view group, const char* file)
{
    char path[2 * PATH_MAX];
    std::snprintf(path, sizeof path, "%.*s%.*s/%s", static_cast<int>(folder.size()), folder.data(),
                  static_cast<int>(group.size()), group.data(), file);
    Lines lines(path);
    std::string_view line;
    std::uint64_t limit = no_limit;
    if (lines.Next(line))
        std::from_chars(line.data(), line.data() + line.size(), limit);
    return limit;
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

std::uint64_t least_limit_upwards(const Mount& mount, std::string_view group, const char* file)
{
    std::string_view below = path_below(mount.root, group);
    std::uint64_t limit = read_limit(mount.point, below, file);
    while (!below.empty()) {
        below = below.substr(0, below.rfind('/'));
        limit = std::min(limit, read_limit(mount.point, below, file));
    }
    return limit;
}

std::uint64_t limit_under(const Mount& mount, const char* groups)
{
    std::uint64_t limit = no_limit;
    for (const Version& version : versions) {
        char group[PATH_MAX];
        if (bears(mount, version) && find_group(groups, version, group))
            limit = std::min(limit, least_limit_upwards(mount, group, version.limit_file));
    }
    return limit;
}

} // namespace

std::uint64_t ControlGroupLimit(const char* groups, const char* mounts)
{
    std::uint64_t limit = no_limit;
    Lines lines(mounts);
    for (std::string_view line; lines.Next(line);)
        limit = std::min(limit, limit_under(parse_mount(line), groups));
    return limit;
}

std::uint64_t MachineMemory()
{
    struct sysinfo information;
    if (sysinfo(&information) != 0)
        return no_limit;
    return static_cast<std::uint64_t>(information.totalram) * information.mem_unit;
}

std::uint64_t AddressSpaceLimit()
{
    constexpr std::uint64_t all = std::uint64_t{1} << 47;
    rlimit limit{};
    return getrlimit(RLIMIT_AS, &limit) == 0 ? std::min<std::uint64_t>(limit.rlim_cur, all) : all;
}
