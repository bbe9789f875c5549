#include "Platform/Posix/LimitFacts.h"

#include "Platform/AddressSpaceUse.h"
#include "Platform/LimitTable.h"
#include "Platform/Posix/AddressSpace.h"
#include "Platform/Posix/AllocationFailure.h"
#include "Platform/Posix/Anchor.h"
#include "Platform/Posix/Folder.h"
#include "Platform/Posix/Inspection.h"
#include "Platform/Posix/Lines.h"
#include "Platform/Posix/LoginManager.h"
#include "Platform/Posix/MemoryLimits.h"
#include "Platform/Posix/Paths.h"
#include "Platform/Posix/Reserve.h"
#include "Platform/SystemPlatform.h"
#include "Platform/Units.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

namespace
{

using Fact = Platform::Inspection::Fact;
using State = Fact::State;
using Number = unsigned long long; // what is printed by %llu

__attribute__((format(printf, 1, 2))) std::string text(const char* format, ...)
{
    char buffer[PATH_MAX + 512];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(buffer, sizeof buffer, format, arguments);
    va_end(arguments);
    return buffer;
}

std::string no_file_in(const MountedAt& mounted)
{
    char buffer[256];
    return text("no file can be made in %s: %s", mounted.folder,
                strerror_r(mounted.error, buffer, sizeof buffer));
}

/// As printf takes it.
Number mb(std::uint64_t bytes)
{
    return WholeMb(bytes);
}

std::uint64_t rest(std::uint64_t all, std::uint64_t taken)
{
    return all - std::min(all, taken);
}

void set_numbers(Fact& fact, std::uint64_t most, std::uint64_t left)
{
    fact.is_bounded = true;
    fact.most = most;
    fact.left = left;
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

/// A line of the table of mounts is "id ... - kind source options".
template <std::size_t N>
void find_kind(const char* folder, char (&kind)[N])
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
            kind[take(line, " ").copy(kind, N - 1)] = '\0';
        }
}

/// Without the descriptor that the count itself takes.
std::uint64_t count_descriptors()
{
    std::uint64_t count = 0;
    ForEachName("/proc/self/fd", "", [&count](const char* name) { count += name[0] != '.'; });
    return rest(count, 1);
}

} // namespace

MountedAt::MountedAt(const char* path) : folder(path)
{
    struct statvfs status {
    };
    error = statvfs(folder, &status) == 0 ? why_not_writable(folder) : errno;
    size = std::uint64_t{status.f_blocks} * status.f_frsize;
    free = std::uint64_t{status.f_bavail} * status.f_frsize;
    counts_names = status.f_files != 0;
    names = status.f_files;
    free_names = status.f_favail;
    on_disk = LiesOnDisk(folder);
    find_kind(folder, kind);
}

LookedAt::LookedAt(const char* temp_folder) : shared(SharedFolder), temp(temp_folder) {}

std::vector<Fact> PosixInspection::Look(const char* temp_folder)
{
    const NoCancellation calm;
    return LookAtAll(LookedAt(temp_folder));
}

void LookAtSharedMemory(const LookedAt& folders, Fact& fact)
{
    const MountedAt& shared = folders.shared;
    if (shared.error != 0) {
        fact.state = State::Unusable;
        fact.value = no_file_in(shared);
        fact.cure = text("have a tmpfs mounted there that every user may write to: mount -t tmpfs "
                         "-o mode=1777 tmpfs %s",
                         SharedFolder);
        return;
    }
    set_numbers(fact, shared.size, std::min(shared.free, shared.size));
    fact.value = text("%llu MB free in %s (%s)", mb(shared.free), SharedFolder, shared.kind);
    fact.cure = text("make it larger (docker run --shm-size={}m; mount -o remount,size={}m %s)",
                     SharedFolder);
    if (shared.on_disk) {
        fact.state = State::Doubtful;
        fact.cure = "have a tmpfs mounted there: this is a disk";
    }
}

void LookAtNames(const LookedAt& folders, Fact& fact)
{
    const MountedAt& shared = folders.shared;
    fact.least = 1;
    fact.for_region = 1;
    if (shared.error != 0)
        return; // shared memory tells it
    fact.value = text("no limit in %s", SharedFolder);
    if (!shared.counts_names)
        return;
    set_numbers(fact, shared.names, shared.free_names);
    fact.value = text("room for %llu in %s", Number{shared.free_names}, SharedFolder);
    fact.cure = text("mount -o remount,nr_inodes=0 %s", SharedFolder);
}

void LookAtGroup(const LookedAt&, Fact& fact)
{
    const std::uint64_t limit = ControlGroupLimit(GroupFolders::OfThisProcess());
    fact.value = "no limit of memory";
    if (limit >= MachineMemory())
        return;
    set_numbers(fact, limit, std::min(MemoryHeadroom().LeftInGroups(), limit));
    fact.value = text("%llu MB of %llu MB left", mb(fact.left), mb(limit));
    fact.cure = "raise the limit (docker run --memory={}m; systemctl set-property UNIT "
                "MemoryMax={}M)";
}

void LookAtMachine(const LookedAt&, Fact& fact)
{
    const MemoryTable now;
    set_numbers(fact, now.total + now.swap, MemoryHeadroom().LeftOnMachine());
    fact.value = text("%llu MB of %llu MB and %llu MB of swap available", mb(now.available),
                      mb(now.total), mb(now.available_swap));
    fact.cure = "end other programs, add swap";
}

void LookAtCommitment(const LookedAt&, Fact& fact)
{
    const MemoryTable now;
    fact.value = "no limit of them";
    if (!KeepsToCommitment())
        return;
    set_numbers(fact, now.commit_limit, rest(now.commit_limit, now.committed));
    fact.value = text("%llu MB of %llu MB left", mb(fact.left), mb(fact.most));
    fact.cure = "sysctl -w vm.overcommit_memory=0, add swap";
}

void LookAtTempFolder(const LookedAt& folders, Fact& fact)
{
    const MountedAt& temp = folders.temp;
    fact.value = text("%s (%s)", temp.folder, temp.kind);
    if (temp.error != 0) {
        fact.state = State::Unusable;
        fact.value = no_file_in(temp);
    } else if (!temp.on_disk) {
        fact.state = State::Doubtful;
    }
}

void LookAtDisk(const LookedAt& folders, Fact& fact)
{
    const MountedAt& temp = folders.temp;
    if (temp.error != 0)
        return; // the temp folder tells it
    set_numbers(fact, temp.size, temp.free);
    fact.value = text("%llu MB free", mb(temp.free));
}

void LookAtFileSize(const LookedAt&, Fact& fact)
{
    const std::uint64_t limit = SoftLimit(RLIMIT_FSIZE);
    fact.value = "no limit";
    if (limit == RLIM_INFINITY)
        return;
    set_numbers(fact, limit, limit);
    fact.value = text("at most %llu MB", mb(limit));
    fact.cure = "ulimit -f unlimited";
}

void LookAtDescriptors(const LookedAt&, Fact& fact)
{
    const std::uint64_t limit = SoftLimit(RLIMIT_NOFILE);
    fact.least = 4; // for a moment, in a few threads
    fact.for_region = Anchor::PagesWillDo() ? 0 : 1;
    fact.value = "no limit";
    if (limit == RLIM_INFINITY)
        return;
    set_numbers(fact, limit, rest(limit, count_descriptors()));
    fact.value = text("%llu of %llu left", Number{fact.left}, Number{limit});
    fact.cure = "ulimit -n {}";
}

/// A region in shared memory takes two: an anchor and a view.
void LookAtMaps(const LookedAt&, Fact& fact)
{
    const std::uint64_t limit = MostMaps();
    fact.least = 2;
    fact.for_region = 2;
    fact.value = "no limit is told";
    if (limit == 0)
        return;
    set_numbers(fact, limit, rest(limit, CountMaps()));
    fact.value = text("%llu of %llu left", Number{fact.left}, Number{limit});
    fact.cure = "sysctl -w vm.max_map_count={}";
}

void LookAtViews(const LookedAt&, Fact& fact)
{
    fact.value = "made from a page of the region";
    if (Anchor::PagesWillDo())
        return;
    fact.state = State::Doubtful;
    fact.value = "made by a descriptor that each region keeps";
    fact.cure = "run without the tool, or filter, that refuses mremap with an old size of 0; or "
                "see that descriptors don't run out";
}

void LookAtAddressSpace(const LookedAt&, Fact& fact)
{
    Platform::AddressSpaceUse use;
    if (!use.Read(Platform::SystemProcess())) {
        fact.state = State::Doubtful;
        fact.value = "it isn't told";
        fact.cure = "mount /proc";
        return;
    }
    set_numbers(fact, AddressSpaceLimit(), use.LargestFree());
    fact.value = text("%llu MB free in one stretch", mb(use.LargestFree()));
    fact.cure = "ulimit -v unlimited";
}

void LookAtNamesAtLogout(const LookedAt&, Fact& fact)
{
    char user[64];
    WriteUserName(getuid(), user, sizeof user);
    switch (WhatHappensAtLogout(user)) {
    case AtLogout::NoManager:
        fact.value = "stay: systemd isn't running here";
        break;
    case AtLogout::SystemUser:
        fact.value = text("stay: %s is a system user", user);
        break;
    case AtLogout::NamesStay:
        fact.value = "stay: RemoveIPC is off";
        break;
    case AtLogout::UserLingers:
        fact.value = text("stay: %s lingers", user);
        break;
    case AtLogout::NamesGo:
        fact.state = State::Doubtful;
        fact.value = text("go with the last session of %s (RemoveIPC)", user);
        fact.cure = text("loginctl enable-linger %s, or RemoveIPC=no in /etc/systemd/logind.conf; "
                         "no byte is lost, but other processes don't find regions any more",
                         user);
    }
}

void LookAtMalloc(const LookedAt&, Fact& fact)
{
    const char* const preloaded = std::getenv("LD_PRELOAD");
    fact.value = "its failures come by this library";
    if (MallocComesByHere())
        return;
    fact.state = State::Doubtful;
    if (!MallocHookIsBuilt()) {
        fact.value = "isn't hooked by this build; operator new is";
        fact.cure = "build with -DMEMPAGER_HOOK_MALLOC=ON and without a sanitizer";
    } else if (preloaded != nullptr && preloaded[0] != '\0') {
        fact.value = text("is another's: LD_PRELOAD=%s; operator new is hooked", preloaded);
        fact.cure = "link that allocator to the program, behind this library";
    } else {
        fact.value = "is another's; operator new is hooked";
        fact.cure = "link the program itself to this library, before any other allocator";
    }
}
