#include "Platform/Posix/Examination.h"

#include "Platform/Posix/AddressSpace.h"
#include "Platform/Posix/AllocationFailure.h"
#include "Platform/Posix/Anchor.h"
#include "Platform/Posix/Folder.h"
#include "Platform/Posix/Inspection.h"
#include "Platform/Posix/Lines.h"
#include "Platform/Posix/MemoryLimits.h"
#include "Platform/Posix/Paths.h"
#include "Platform/Posix/Reserve.h"

#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>

#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

namespace
{

using Finding = Platform::Finding;
using Verdict = Finding::Verdict;
using Number = unsigned long long; // what is printed by %llu

/// A formatted line.
struct Text {
    Text() = default;
    __attribute__((format(printf, 2, 3))) Text(const char* format, ...)
    {
        va_list arguments;
        va_start(arguments, format);
        std::vsnprintf(text, sizeof text, format, arguments);
        va_end(arguments);
    }
    char text[PATH_MAX + 512] = "";
};

struct SystemError : Text {
    explicit SystemError(int error) { text_of = strerror_r(error, text, sizeof text); }
    const char* text_of;
};

Number mb(std::uint64_t bytes)
{
    return bytes >> 20;
}

/// Up: what is advised has to be enough.
Number mb_for(std::uint64_t bytes)
{
    return (bytes + (std::uint64_t{1} << 20) - 1) >> 20;
}

std::uint64_t parts(std::uint64_t all, std::uint64_t part)
{
    return part == 0 ? 0 : (all + part - 1) / part;
}

/// Less than `wanted` could be better; less than `least` is no good.
Verdict measure(std::uint64_t have, std::uint64_t least, std::uint64_t wanted)
{
    if (have >= wanted)
        return Verdict::Ok;
    return have >= least ? Verdict::Warning : Verdict::Bad;
}

/// Tries it with a file without a name, which leaves no trace. @return errno; 0 if it can be done.
int why_not_writable(const char* folder)
{
    const ScopedFile file(OpenDescriptor(folder, O_TMPFILE | O_RDWR, 0600));
    if (file)
        return 0;
    if (errno != EOPNOTSUPP && errno != EISDIR)
        return errno;
    return faccessat(AT_FDCWD, folder, W_OK | X_OK, AT_EACCESS) == 0 ? 0 : errno;
}

/// A mounted file system, as seen by this user.
struct FileSystem {
    explicit FileSystem(const char* folder)
    {
        struct statvfs status {
        };
        error = statvfs(folder, &status) == 0 ? why_not_writable(folder) : errno;
        size = std::uint64_t{status.f_blocks} * status.f_frsize;
        free = std::uint64_t{status.f_bavail} * status.f_frsize;
        counts_names = status.f_files != 0;
        free_names = status.f_favail;
        on_disk = LiesOnDisk(folder);
        find_kind(folder);
    }

    int error = 0; ///< why no file can be made
    std::uint64_t size = 0;
    std::uint64_t free = 0;
    bool counts_names = false;
    std::uint64_t free_names = 0;
    bool on_disk = false;
    char kind[32] = "unknown kind";

private:
    /// A line of the table is "id ... - kind source options".
    void find_kind(const char* folder)
    {
        struct statx status {
        };
        if (statx(AT_FDCWD, folder, 0, STATX_MNT_ID, &status) != 0)
            return;
        const std::string id = std::to_string(status.stx_mnt_id);
        Lines lines("/proc/self/mountinfo");
        for (std::string_view line; lines.Next(line);)
            if (take(line, " ") == id && line.find(" - ") != line.npos) {
                take(line, " - ");
                kind[take(line, " ").copy(kind, sizeof kind - 1)] = '\0';
            }
    }
};

/// But the one that the look itself takes.
std::uint64_t count_descriptors()
{
    std::uint64_t count = 0;
    ForEachName("/proc/self/fd", "", [&count](const char* name) { count += name[0] != '.'; });
    return count - std::min<std::uint64_t>(count, 1);
}

std::uint64_t rest(std::uint64_t all, std::uint64_t taken)
{
    return all - std::min(all, taken);
}

bool is_there(const char* path)
{
    struct stat status;
    return stat(path, &status) == 0;
}

// What the login manager does to files in shared memory when a user's last session ends ---------

std::string_view without_spaces(std::string_view text)
{
    constexpr char spaces[] = " \t\r";
    text.remove_prefix(std::min(text.find_first_not_of(spaces), text.size()));
    return text.substr(0, text.find_last_not_of(spaces) + 1);
}

/// Takes the setting from a file, if it is there: a line is "RemoveIPC=boolean".
void read_setting(const char* path, bool& removes)
{
    Lines lines(path);
    for (std::string_view line; lines.Next(line);) {
        const std::string_view key = without_spaces(take(line, "="));
        const std::string_view value = without_spaces(line);
        if (key == "RemoveIPC" && !value.empty())
            removes = value[0] == '1' || value[0] == 'y' || value[0] == 't' || value == "on";
    }
}

/// Its main file, then what was dropped in beside it, by name; /etc stands for the same name in
/// /run, and that for one in /usr.
bool names_go_at_logout()
{
    constexpr const char* folders[] = {"/etc/systemd/", "/run/systemd/", "/usr/lib/systemd/"};
    std::map<std::string, std::string> files;
    for (const std::string folder : folders) {
        const std::string drop_ins = folder + "logind.conf.d/";
        files.emplace("", folder + "logind.conf"); // first of all
        ForEachName(drop_ins.c_str(), "", [&](const char* name) {
            if (std::string_view(name).ends_with(".conf"))
                files.emplace(name, drop_ins + name);
        });
        if (!is_there(files[""].c_str()))
            files.erase("");
    }
    bool removes = true;
    for (const auto& [name, path] : files)
        read_setting(path.c_str(), removes);
    return removes;
}

class Examiner
{
public:
    Examiner(const Platform::Demand& demand, Platform::Findings& findings)
        : m_demand(demand),
          m_findings(findings),
          m_temp_folder(demand.temp_folder[0] == '\0' ? "/" : demand.temp_folder),
          m_shared(SharedFolder),
          m_temp(m_temp_folder)
    {
    }

    void Run() const
    {
        shared_memory();
        names();
        control_group();
        machine();
        promises();
        temp_folder();
        temp_room();
        file_size();
        descriptors();
        maps();
        views();
        address_space();
        logout();
        malloc_hook();
    }

private:
    void tell(Verdict verdict, const char* subject, const Text& value, const Text& advice) const
    {
        m_findings.Take({verdict, subject, value.text, verdict == Verdict::Ok ? "" : advice.text});
    }

    bool has_spare_folder() const
    {
        return m_demand.temp_folder[0] == '/' && m_temp.error == 0 && m_temp.on_disk &&
               m_temp.free >= m_demand.region;
    }

    /// Where regions can go to the temp folder, a want of memory is no failure.
    Verdict for_memory(Verdict verdict) const
    {
        return verdict == Verdict::Bad && has_spare_folder() ? Verdict::Warning : verdict;
    }

    Verdict measure_memory(std::uint64_t have) const
    {
        return for_memory(measure(have, m_demand.region, m_demand.shared_memory));
    }

    void shared_memory() const
    {
        const char* const subject = "shared memory";
        if (m_shared.error != 0)
            return tell(for_memory(Verdict::Bad), subject,
                        Text("no file can be made in %s: %s", SharedFolder,
                             SystemError(m_shared.error).text_of),
                        Text("have a tmpfs mounted there that every user may write to: mount -t "
                             "tmpfs -o mode=1777 tmpfs %s",
                             SharedFolder));
        const std::uint64_t size =
            m_shared.size + rest(m_demand.shared_memory, std::min(m_shared.free, m_shared.size));
        tell(m_shared.on_disk ? Verdict::Warning : measure_memory(m_shared.free), subject,
             Text("%llu MB free in %s (%s), %llu MB wanted", mb(m_shared.free), SharedFolder,
                  m_shared.kind, mb(m_demand.shared_memory)),
             m_shared.on_disk ? Text("have a tmpfs mounted there: this is a disk")
                              : Text("make it larger (docker run --shm-size=%llum; mount -o "
                                     "remount,size=%llum %s), or SetSwapMaxSizeInMb(%llu)",
                                     mb_for(size), mb_for(size), SharedFolder, mb(m_shared.free)));
    }

    void names() const
    {
        if (m_shared.error != 0)
            return;
        const std::uint64_t wanted = parts(m_demand.shared_memory, m_demand.region);
        const bool bounded = m_shared.counts_names;
        const Verdict verdict = measure(bounded ? m_shared.free_names : wanted, 1, wanted);
        tell(for_memory(verdict), "names",
             bounded ? Text("room for %llu in %s, %llu wanted", Number{m_shared.free_names},
                            SharedFolder, Number{wanted})
                     : Text("no limit in %s", SharedFolder),
             Text("mount -o remount,nr_inodes=0 %s", SharedFolder));
    }

    void control_group() const
    {
        const std::uint64_t limit = ControlGroupLimit();
        const std::uint64_t left = MemoryRoom().LeftInGroups();
        if (limit >= MachineMemory())
            return tell(Verdict::Ok, "control group", Text("no limit of memory"), Text());
        tell(measure_memory(left), "control group",
             Text("%llu MB of %llu MB left, %llu MB wanted", mb(std::min(left, limit)), mb(limit),
                  mb(m_demand.shared_memory)),
             Text("raise the limit (docker run --memory=%llum; systemctl set-property UNIT "
                  "MemoryMax=%lluM), or SetSwapMaxSizeInMb(%llu)",
                  mb_for(limit + m_demand.shared_memory), mb_for(limit + m_demand.shared_memory),
                  mb(left)));
    }

    void machine() const
    {
        const MachineNow now = ReadMachine();
        const std::uint64_t left = MemoryRoom().LeftOnMachine();
        tell(measure_memory(left), "machine's memory",
             Text("%llu MB of %llu MB and %llu MB of swap available, %llu MB wanted",
                  mb(now.available_memory), mb(now.memory), mb(now.available_swap),
                  mb(m_demand.shared_memory)),
             Text("end other programs, add swap, or SetSwapMaxSizeInMb(%llu)", mb(left)));
    }

    void promises() const
    {
        const Commitment now = ReadCommitment();
        const std::uint64_t left = rest(now.limit, now.promised);
        if (!KeepsToCommitment())
            return tell(Verdict::Ok, "machine's promises", Text("no limit of them"), Text());
        tell(measure_memory(left), "machine's promises",
             Text("%llu MB of %llu MB left, %llu MB wanted", mb(left), mb(now.limit),
                  mb(m_demand.shared_memory)),
             Text("sysctl -w vm.overcommit_memory=0, add swap, or SetSwapMaxSizeInMb(%llu)",
                  mb(left)));
    }

    void temp_folder() const
    {
        const char* const subject = "temp folder";
        const char* const folder = m_demand.temp_folder;
        if (m_temp.error != 0)
            tell(Verdict::Bad, subject,
                 Text("no file can be made in %s: %s", m_temp_folder,
                      SystemError(m_temp.error).text_of),
                 Text("set TEMP to a folder on a disk that this user may write to"));
        else if (folder[0] == '\0')
            tell(Verdict::Warning, subject, Text("an empty text, which stands for /"),
                 Text("set TEMP to a folder on a disk, or unset it"));
        else if (folder[0] != '/')
            tell(Verdict::Warning, subject, Text("%s, wherever the program is then", folder),
                 Text("set TEMP to an absolute path; nothing goes there by a relative one when "
                      "shared memory is full"));
        else
            tell(m_temp.on_disk ? Verdict::Ok : Verdict::Warning, subject,
                 Text("%s (%s)", folder, m_temp.kind),
                 Text("set TEMP to a folder on a disk: this one is in memory, so nothing is won "
                      "by going there"));
    }

    void temp_room() const
    {
        if (m_temp.error != 0)
            return;
        const std::uint64_t left = rest(m_temp.free, m_demand.free_disk);
        tell(measure(left, m_demand.region, m_demand.files), "room for temp files",
             Text("%llu MB free, %llu MB wanted and %llu MB to be left", mb(m_temp.free),
                  mb(m_demand.files), mb(m_demand.free_disk)),
             Text("set TEMP to a folder on a larger disk, or MaxTotalSpaceInMb to less "
                  "(SetFileHeapParmeters)"));
    }

    void file_size() const
    {
        const std::uint64_t limit = SoftLimit(RLIMIT_FSIZE);
        tell(measure(limit, m_demand.region, m_demand.file), "file size",
             limit == RLIM_INFINITY ? Text("no limit")
                                    : Text("at most %llu MB, %llu MB wanted", mb(limit),
                                           mb_for(std::max(m_demand.file, m_demand.region))),
             Text("ulimit -f unlimited, or FileSizeInMb to less (SetFileHeapParmeters)"));
    }

    void descriptors() const
    {
        constexpr std::uint64_t at_once = 4; // for a moment, in a few threads
        const std::uint64_t limit = SoftLimit(RLIMIT_NOFILE);
        const std::uint64_t left = rest(limit, count_descriptors());
        const std::uint64_t wanted =
            parts(m_demand.files, m_demand.file) + at_once +
            (Anchor::PagesWillDo() ? 0 : parts(m_demand.shared_memory, m_demand.region));
        tell(measure(left, at_once, wanted), "descriptors",
             limit == RLIM_INFINITY ? Text("no limit")
                                    : Text("%llu of %llu left, %llu wanted", Number{left},
                                           Number{limit}, Number{wanted}),
             Text("ulimit -n %llu", Number{limit - left + wanted}));
    }

    /// A region in shared memory takes two: an anchor and a view.
    void maps() const
    {
        constexpr std::uint64_t each = 2;
        const std::uint64_t limit = MostMaps();
        if (limit == 0)
            return tell(Verdict::Ok, "maps", Text("no limit is told"), Text());
        const std::uint64_t used = CountMaps();
        const std::uint64_t wanted =
            each * parts(m_demand.shared_memory + m_demand.files, m_demand.region);
        tell(measure(rest(limit, used), each, wanted), "maps",
             Text("%llu of %llu left, %llu wanted", Number{rest(limit, used)}, Number{limit},
                  Number{wanted}),
             Text("sysctl -w vm.max_map_count=%llu", Number{std::max(used + wanted, limit)}));
    }

    void views() const
    {
        if (Anchor::PagesWillDo())
            return tell(Verdict::Ok, "views", Text("made from a page of the region"), Text());
        tell(Verdict::Warning, "views", Text("made by a descriptor that each region keeps"),
             Text("run without the tool, or filter, that refuses mremap with an old size of 0; or "
                  "see that descriptors don't run out"));
    }

    void address_space() const
    {
        std::uint64_t used = 0, largest = 0;
        const std::uint64_t limit = AddressSpaceLimit();
        if (!ReadAddressSpace(limit, used, largest))
            return tell(Verdict::Warning, "address space", Text("it isn't told"),
                        Text("mount /proc"));
        tell(
            measure(largest, m_demand.region, m_demand.views + m_demand.region), "address space",
            Text("%llu MB free in one stretch, %llu MB wanted", mb(largest),
                 mb_for(m_demand.views + m_demand.region)),
            Text("ulimit -v unlimited, or SetCacheSize(%llu)", mb(rest(largest, m_demand.region))));
    }

    void logout() const
    {
        constexpr uid_t last_system_user = 999;
        const char* const subject = "names at logout";
        char user[64];
        WriteUserName(getuid(), user, sizeof user);
        if (!is_there("/run/systemd/system"))
            tell(Verdict::Ok, subject, Text("stay: systemd isn't running here"), Text());
        else if (getuid() <= last_system_user)
            tell(Verdict::Ok, subject, Text("stay: %s is a system user", user), Text());
        else if (!names_go_at_logout())
            tell(Verdict::Ok, subject, Text("stay: RemoveIPC is off"), Text());
        else if (is_there(Text("/var/lib/systemd/linger/%s", user).text))
            tell(Verdict::Ok, subject, Text("stay: %s lingers", user), Text());
        else
            tell(Verdict::Warning, subject,
                 Text("go with the last session of %s (RemoveIPC)", user),
                 Text("loginctl enable-linger %s, or RemoveIPC=no in /etc/systemd/logind.conf; no "
                      "byte is lost, but other processes don't find regions any more",
                      user));
    }

    void malloc_hook() const
    {
        const char* const subject = "malloc";
        const char* const preloaded = std::getenv("LD_PRELOAD");
        if (!m_demand.reclaims)
            tell(Verdict::Warning, subject, Text("is left alone: VORTELIX_DIS_NEW_HANDLER is set"),
                 Text("unset it, so that the cache is given up when memory runs out"));
        else if (MallocComesByHere())
            tell(Verdict::Ok, subject, Text("the cache is given up when it fails"), Text());
        else if (!MallocHookIsBuilt())
            tell(Verdict::Warning, subject, Text("isn't hooked by this build; operator new is"),
                 Text("build with -DMEMPAGER_HOOK_MALLOC=ON and without a sanitizer"));
        else if (preloaded != nullptr && preloaded[0] != '\0')
            tell(Verdict::Warning, subject,
                 Text("is another's: LD_PRELOAD=%s; operator new is hooked", preloaded),
                 Text("link that allocator to the program, behind this library"));
        else
            tell(Verdict::Warning, subject, Text("is another's; operator new is hooked"),
                 Text("link the program itself to this library, before any other allocator"));
    }

    const Platform::Demand& m_demand;
    Platform::Findings& m_findings;
    const char* const m_temp_folder; ///< where temp files really go
    const FileSystem m_shared;
    const FileSystem m_temp;
};

} // namespace

void ExamineMachine(const Platform::Demand& demand, Platform::Findings& findings)
{
    Examiner(demand, findings).Run();
}
