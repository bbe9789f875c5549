#include "Platform/Posix/ControlGroups.h"

#include "Platform/CoarseTime.h"
#include "Platform/Posix/Lines.h"
#include "Platform/Posix/Turn.h"

#include <atomic>
#include <cstdint>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

constexpr const char* own_groups = "/proc/self/cgroup";
constexpr const char* own_mounts = "/proc/self/mountinfo";

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

/// What shows that this process was moved to other groups or another root folder.
class Whereabouts
{
public:
    /// Reads them.
    void Look()
    {
        const ScopedFile file(OpenDescriptor(own_groups, O_RDONLY));
        const ssize_t got = read(file.Get(), m_groups, sizeof m_groups);
        m_length = got > 0 ? static_cast<std::size_t>(got) : 0;
        struct stat root {
        };
        stat("/", &root);
        m_device = root.st_dev;
        m_folder = root.st_ino;
    }

    /// Whether nothing has changed between two looks. A look that failed, or was cut, equals none.
    bool operator==(const Whereabouts& other) const
    {
        return m_length != 0 && m_length != sizeof m_groups && m_length == other.m_length &&
               m_device == other.m_device && m_folder == other.m_folder &&
               std::memcmp(m_groups, other.m_groups, m_length) == 0;
    }

private:
    char m_groups[PATH_MAX] = {};
    std::size_t m_length = 0;
    dev_t m_device = 0;
    ino_t m_folder = 0;
};

/// The folders that were found last.
class Remembered
{
public:
    bool Recall(const Whereabouts& here, GroupFolders& folders)
    {
        const Turn turn(m_taken);
        if (!turn || !(here == m_where) || Platform::CoarseMilliseconds() >= m_end)
            return false;
        folders = m_folders;
        return true;
    }

    void Keep(const Whereabouts& here, const GroupFolders& folders)
    {
        const Turn turn(m_taken);
        if (!turn)
            return;
        m_where = here;
        m_folders = folders;
        m_end = Platform::CoarseMilliseconds() + 1000;
    }

private:
    std::atomic_flag m_taken;
    Whereabouts m_where;
    GroupFolders m_folders;
    std::uint64_t m_end = 0;
};

constinit Remembered remembered;

} // namespace

GroupFolders GroupFolders::OfThisProcess()
{
    Whereabouts here;
    here.Look();
    GroupFolders folders;
    if (!remembered.Recall(here, folders)) {
        folders.find(own_groups, own_mounts);
        remembered.Keep(here, folders);
    }
    return folders;
}

GroupFolders::GroupFolders(const char* groups, const char* mounts)
{
    find(groups, mounts);
}

void GroupFolders::find(const char* groups, const char* mounts)
{
    Lines lines(mounts);
    for (std::string_view line; lines.Next(line);) {
        const Mount mount = parse_mount(line);
        for (const GroupVersion& version : versions) {
            char group[PATH_MAX];
            if (bears(mount, version) && find_group(groups, version, group))
                add_upwards(version, mount.point, path_below(mount.root, group));
        }
    }
}

/// `below` is empty or begins with a slash.
void GroupFolders::add_upwards(const GroupVersion& version, std::string_view mount_point,
                               std::string_view below)
{
    add(version, mount_point, below);
    while (!below.empty()) {
        below = below.substr(0, below.rfind('/'));
        add(version, mount_point, below);
    }
}

void GroupFolders::add(const GroupVersion& version, std::string_view mount_point,
                       std::string_view below)
{
    const std::size_t size = mount_point.size() + below.size() + 1;
    if (m_count == Most || size > sizeof m_texts - m_used)
        return;
    char* const text = m_texts + m_used;
    mount_point.copy(text, mount_point.size());
    below.copy(text + mount_point.size(), below.size());
    text[size - 1] = '\0';
    if (access(GroupFile(text, version.limit_file).path, F_OK) != 0)
        return;
    m_folders[m_count++] = {&version, m_used};
    m_used += size;
}
