#ifndef PLATFORM_POSIX_CONTROLGROUPS_H
#define PLATFORM_POSIX_CONTROLGROUPS_H

#include <climits>
#include <cstddef>
#include <cstdio>
#include <string_view>

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

/// The path of a file in a group's folder; cut where no call would take it.
struct GroupFile {
    GroupFile(const char* folder, const char* file)
    {
        std::snprintf(path, sizeof path, "%s/%s", folder, file);
    }
    char path[PATH_MAX];
};

/// The groups that bound the memory of a process, its own and those above it, of version 1 and 2:
/// the folder of each that has a file for its limit. Allocates nothing and keeps nothing open.
class GroupFolders
{
public:
    /// Those of this process. What was found is remembered for a second, as long as the process
    /// stays in its groups and has the same root folder: one that was moved, that has changed its
    /// root or has entered another container is seen at once, and within a second also other
    /// mounts of control groups and a limit that a group didn't have at all. Threads: any.
    static GroupFolders OfThisProcess();

    /// Reads tables in the form of /proc/self/cgroup and /proc/self/mountinfo.
    GroupFolders(const char* groups, const char* mounts);

    /// None.
    constexpr GroupFolders() = default;

    std::size_t Count() const { return m_count; }
    const GroupVersion& Version(std::size_t number) const { return *m_folders[number].version; }

    /// The path, as long as this object lives.
    const char* Path(std::size_t number) const { return m_texts + m_folders[number].text; }

    static constexpr std::size_t Most = 32;

private:
    struct Folder {
        const GroupVersion* version;
        std::size_t text; ///< where it begins
    };

    void find(const char* groups, const char* mounts);
    void add_upwards(const GroupVersion& version, std::string_view mount_point,
                     std::string_view below);
    void add(const GroupVersion& version, std::string_view mount_point, std::string_view below);

    Folder m_folders[Most] = {};
    std::size_t m_count = 0;
    char m_texts[2 * PATH_MAX] = {}; ///< the paths, one behind the other
    std::size_t m_used = 0;
};

#endif
