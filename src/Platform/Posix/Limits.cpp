#include "Platform/Posix/Limits.h"

#include "Platform/KeepErrno.h"
#include "Platform/Posix/AddressSpace.h"
#include "Platform/Posix/Mappings.h"
#include "Platform/Posix/MemoryLimits.h"
#include "Platform/Posix/Paths.h"

#include <algorithm>

#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

namespace
{

using Platform::Subject;

/// A file system with its free space.
struct FileSystem {
    /// Whether that is shared memory, whatever the path that led there.
    bool IsShared() const
    {
        struct stat shared;
        return stat(SharedFolder, &shared) == 0 && shared.st_dev == status.st_dev;
    }
    std::uint64_t Bytes(std::uint64_t blocks) const { return blocks * space.f_frsize; }

    struct stat status;
    struct statvfs space;
};

void meet_full(const FileSystem& full, std::uint64_t given_back)
{
    MeetLimit(full.IsShared() ? Subject::SharedMemory : Subject::Disk,
              full.Bytes(full.space.f_blocks), full.Bytes(full.space.f_bavail) + given_back);
}

bool has_no_more_files(const FileSystem& full)
{
    return full.space.f_files != 0 && full.space.f_favail == 0;
}

} // namespace

void MeetLimitOf(int error)
{
    const KeepErrno keep;
    if (error == EFBIG)
        MeetLimit(Subject::FileSize, SoftLimit(RLIMIT_FSIZE), 0);
    else if (error == EDQUOT)
        MeetLimit(Subject::Quota, 0, 0);
    else if (error == EMFILE)
        MeetLimit(Subject::Descriptors, SoftLimit(RLIMIT_NOFILE), 0);
    else if (error == ENFILE)
        MeetLimit(Subject::OpenFiles, 0, 0);
}

void MeetNoMap(std::uint64_t size)
{
    constexpr std::uint64_t spare_maps = 8; // what the system wants for itself while it moves one
    const KeepErrno keep;
    if (errno != ENOMEM)
        return;
    const std::uint64_t most = SoftLimit(RLIMIT_AS);
    const std::uint64_t used = AddressSpaceInUse();
    if (size > most - std::min(most, used))
        return MeetLimit(Subject::AddressSpace, most, most - std::min(most, used));
    const std::uint64_t most_maps = MostMaps();
    const std::uint64_t maps = CountMaps();
    if (maps + spare_maps >= most_maps && most_maps != 0)
        MeetLimit(Subject::Maps, most_maps, most_maps - std::min(most_maps, maps));
}

void MeetNoRoom(int file, std::uint64_t done, std::uint64_t more)
{
    const KeepErrno keep;
    FileSystem full;
    if (errno != ENOSPC || fstat(file, &full.status) != 0 || fstatvfs(file, &full.space) != 0)
        return;
    if (!full.IsShared() || full.Bytes(full.space.f_bavail) < more)
        return meet_full(full, done);
    const MemoryTable now;
    MeetLimit(Subject::Commitment, now.commit_limit,
              now.commit_limit - std::min(now.commit_limit, now.committed) + done);
}

void MeetNoNewFile(const char* path)
{
    const KeepErrno keep;
    FileSystem full;
    Path folder;
    if (errno != ENOSPC || !folder.SetFolderOf(path) || stat(folder.Text(), &full.status) != 0 ||
        statvfs(folder.Text(), &full.space) != 0)
        return;
    if (has_no_more_files(full))
        MeetLimit(full.IsShared() ? Subject::SharedMemoryNames : Subject::DiskNames,
                  full.space.f_files, full.space.f_favail);
    else
        meet_full(full, 0);
}

Platform::Mappings::LimitsMet PosixMappings::LastLimits(char* text, std::size_t size)
{
    return WriteMetLimits(text, size);
}
