#include "Platform/Posix/Inspection.h"

#include "Platform/Posix/Failure.h"
#include "Platform/Posix/Folder.h"
#include "Platform/Posix/Fork.h"
#include "Platform/Posix/Lines.h"
#include "Platform/Posix/Liveness.h"
#include "Platform/Posix/Paths.h"
#include "Platform/SystemPlatform.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <pwd.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

namespace
{

using Facts = Platform::Inspection::FileFacts;

Facts::Kind kind_of(mode_t mode)
{
    if (S_ISREG(mode))
        return Facts::Kind::Plain;
    if (S_ISLNK(mode))
        return Facts::Kind::Link;
    return S_ISDIR(mode) ? Facts::Kind::Folder : Facts::Kind::Other;
}

/// Where a file system doesn't tell when a file was made, the last change of its names and rights
/// is near enough: its creator makes both at once.
std::time_t time_made(const char* path, const struct stat& status)
{
    struct statx more {
    };
    const bool told = statx(AT_FDCWD, path, AT_SYMLINK_NOFOLLOW, STATX_BTIME, &more) == 0 &&
                      (more.stx_mask & STATX_BTIME) != 0;
    return told ? static_cast<std::time_t>(more.stx_btime.tv_sec) : status.st_ctime;
}

std::uint64_t age_of(const char* path, const struct stat& status)
{
    return static_cast<std::uint64_t>(
        std::max<std::time_t>(std::time(nullptr) - time_made(path, status), 0));
}

/// In a folder like /tmp a name goes only by its file's owner, the folder's, or root.
bool may_remove(const char* path, uid_t owner)
{
    Path folder;
    struct stat status;
    if (!folder.SetFolderOf(path) || stat(folder.Text(), &status) != 0 ||
        faccessat(AT_FDCWD, folder.Text(), W_OK | X_OK, AT_EACCESS) != 0)
        return false;
    const uid_t user = geteuid();
    return (status.st_mode & S_ISVTX) == 0 || user == owner || user == status.st_uid || user == 0;
}

Facts::Mark mark_of(const char* path)
{
    const ScopedFile file(OpenToRead(path));
    if (!file)
        return Facts::Mark::Unknown;
    return CreatorLives(file.Get()) ? Facts::Mark::Held : Facts::Mark::Gone;
}

/// Where another user's link leads isn't looked at: that could take for ever.
void read_link(const char* path, Facts& facts)
{
    Path target;
    if (!target.ReadLink(path) || !BelongTogether(LastPart(path), target.Text()))
        return;
    std::snprintf(facts.target, sizeof facts.target, "%s", target.Text());
    facts.is_lost = facts.is_own && IsMissing(target.Text());
}

/// Fills all but the owner's name. Allocates nothing. @return false with errno if nothing is there.
bool read_facts(const char* path, Facts& facts, uid_t& owner)
{
    constexpr std::uint64_t block_size = 512;
    struct stat status;
    if (lstat(path, &status) != 0)
        return false;
    owner = status.st_uid;
    facts.kind = kind_of(status.st_mode);
    facts.identity[0] = status.st_dev;
    facts.identity[1] = status.st_ino;
    facts.is_own = owner == geteuid();
    facts.may_remove = may_remove(path, owner);
    facts.bytes = static_cast<std::uint64_t>(status.st_blocks) * block_size;
    facts.age = age_of(path, status);
    if (facts.kind == Facts::Kind::Plain)
        facts.mark = mark_of(path);
    if (facts.kind == Facts::Kind::Link)
        read_link(path, facts);
    if (facts.kind == Facts::Kind::Folder)
        facts.may_list = faccessat(AT_FDCWD, path, R_OK | X_OK, AT_EACCESS) == 0;
    return true;
}

/// Looks among the users of this machine, in their file.
bool write_local_name(uid_t user, char* text, std::size_t size)
{
    char number[24];
    std::snprintf(number, sizeof number, "%lu", static_cast<unsigned long>(user));
    Lines lines("/etc/passwd");
    for (std::string_view line; lines.Next(line);) {
        const std::string_view name = take(line, ":");
        take(line, ":"); // the password
        if (take(line, ":") != number)
            continue;
        std::snprintf(text, size, "%.*s", static_cast<int>(name.size()), name.data());
        return true;
    }
    return false;
}

/// The C library's look-up, which knows other sources of users too, ends the process where it gets
/// no memory (glibc 2.36), so it is asked only if there is more than it needs.
bool may_look_up_users()
{
    void* volatile const some = std::malloc(65536); // volatile, lest the pair be left out
    std::free(some);
    return some != nullptr;
}

} // namespace

void WriteUserName(uid_t user, char* text, std::size_t size)
{
    if (write_local_name(user, text, size))
        return;
    char buffer[4096];
    passwd entry{};
    passwd* found = nullptr;
    if (may_look_up_users() && getpwuid_r(user, &entry, buffer, sizeof buffer, &found) == 0 &&
        found != nullptr)
        std::snprintf(text, size, "%s", found->pw_name);
    else
        std::snprintf(text, size, "%lu", static_cast<unsigned long>(user));
}

Platform::Inspection& Platform::SystemInspection()
{
    return OnlyOne<PosixInspection>();
}

char PosixInspection::PathSeparator()
{
    return '/';
}

bool PosixInspection::AbsolutePath(const char* path, char* text, std::size_t size)
{
    Path absolute;
    return Reported(absolute.SetAbsolute(path) &&
                    (std::strlen(absolute.Text()) < size || Fail(ENAMETOOLONG)) &&
                    std::strcpy(text, absolute.Text()) != nullptr);
}

const char* PosixInspection::DefaultTempFolder()
{
    return "/var/tmp";
}

const char* PosixInspection::MappingFolder()
{
    return SharedFolder;
}

bool PosixInspection::FreeSpace(const char* folder, double* bytes)
{
    struct statvfs status;
    if (!Reported(statvfs(folder, &status) == 0))
        return false;
    *bytes = static_cast<double>(status.f_bavail) * static_cast<double>(status.f_frsize);
    return true;
}

/// Read as a whole first: the lock is for the time of an open folder, and who takes a name may
/// come back here, or allocate.
void PosixInspection::ListFiles(const char* folder, const char* prefix,
                                Platform::Mappings::Names& names)
{
    NameList list;
    do {
        if (!list.Grow())
            return;
        const NoFork whole;
        ForEachName(folder, prefix, [&list](const char* name) { list.Add(name); });
    } while (!list.IsComplete());
    list.ForEach([&names](const char* name) { names.Take(name); });
}

bool PosixInspection::Inspect(const char* path, FileFacts& facts)
{
    const NoCancellation calm;
    uid_t owner = 0;
    facts = {};
    if (const NoFork whole; !Reported(read_facts(path, facts, owner)))
        return false;
    WriteUserName(owner, facts.owner, sizeof facts.owner); // it may allocate
    return true;
}

bool PosixInspection::RemoveLostLink(const char* path)
{
    return Reported(RemoveLinkIfLost(path));
}

/// Told if the process and what bears the path have one owner.
void PosixInspection::ProgramOf(const char* path, long process, char* text, std::size_t size)
{
    const NoCancellation calm;
    char folder[64];
    struct stat file, creator;
    text[0] = '\0';
    std::snprintf(folder, sizeof folder, "/proc/%ld", process);
    if (lstat(path, &file) != 0 || stat(folder, &creator) != 0 || file.st_uid != creator.st_uid)
        return;
    std::snprintf(folder, sizeof folder, "/proc/%ld/comm", process);
    Lines lines(folder);
    std::string_view name;
    if (lines.Next(name))
        std::snprintf(text, size, "%.*s", static_cast<int>(name.size()), name.data());
}
