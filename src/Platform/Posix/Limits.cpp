#include "Platform/Posix/Limits.h"

#include "Platform/KeepErrno.h"
#include "Platform/Posix/AddressSpace.h"
#include "Platform/Posix/MemoryLimits.h"
#include "Platform/Posix/Paths.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

namespace
{

/// How a limit is written: how much it is and how much is left, in units of 1 << `unit` bytes.
struct Form {
    const char* format;
    int unit;
};
constexpr int one = 0;
constexpr int mb = 20;

constexpr Form forms[LimitCount] = {
    {"/dev/shm of %llu MB, %llu MB left", mb},
    {"/dev/shm of %llu files, %llu left", one},
    {"the temp folder's disk of %llu MB, %llu MB left", mb},
    {"the temp folder's disk of %llu files, %llu left", one},
    {"the user's disk quota", one},
    {"control group of %llu MB, %llu MB left, of which 16 or more are kept", mb},
    {"the machine's memory of %llu MB, %llu MB left, of which 16 are kept", mb},
    {"the machine's promises of %llu MB (vm.overcommit_memory), %llu MB left", mb},
    {"address space of %llu MB (RLIMIT_AS), %llu MB left", mb},
    {"%llu maps (vm.max_map_count), %llu left", one},
    {"files of %llu bytes (RLIMIT_FSIZE)", one},
    {"%llu open files (RLIMIT_NOFILE)", one},
    {"the machine's open files (fs.file-max)", one},
};

struct Numbers {
    std::uint64_t most;
    std::uint64_t left;
};

/// The model keeps the first touch in a thread from allocating.
struct Met {
    std::uint32_t set; ///< a bit for each limit
    Numbers numbers[LimitCount];
};
[[gnu::tls_model("initial-exec")]] constinit thread_local Met met = {};

/// A file system with its room.
struct FileSystem {
    /// Whether that is shared memory, whatever the path that led there.
    bool IsShared() const
    {
        struct stat shared;
        return stat(SharedFolder, &shared) == 0 && shared.st_dev == status.st_dev;
    }
    std::uint64_t Bytes(std::uint64_t blocks) const { return blocks * room.f_frsize; }

    struct stat status;
    struct statvfs room;
};

void meet_full(const FileSystem& full, std::uint64_t given_back)
{
    MeetLimit(full.IsShared() ? Limit::SharedMemory : Limit::Disk, full.Bytes(full.room.f_blocks),
              full.Bytes(full.room.f_bavail) + given_back);
}

/// Appends to a text of `size` bytes with its zero. A form need not show all the numbers.
void print(char* text, std::size_t size, const char* form, unsigned long long most = 0,
           unsigned long long left = 0)
{
    const std::size_t length = std::strlen(text);
    std::snprintf(text + length, size - length, form, most, left);
}

bool has_no_more_files(const FileSystem& full)
{
    return full.room.f_files != 0 && full.room.f_favail == 0;
}

} // namespace

void ForgetLimits()
{
    met.set = 0;
}

void MeetLimit(Limit limit, std::uint64_t most, std::uint64_t left)
{
    const int index = static_cast<int>(limit);
    met.set |= 1u << index;
    met.numbers[index] = {most, left};
}

void MeetLimitOf(int error)
{
    const KeepErrno keep;
    if (error == EFBIG)
        MeetLimit(Limit::FileSize, SoftLimit(RLIMIT_FSIZE), 0);
    else if (error == EDQUOT)
        MeetLimit(Limit::Quota, 0, 0);
    else if (error == EMFILE)
        MeetLimit(Limit::Descriptors, SoftLimit(RLIMIT_NOFILE), 0);
    else if (error == ENFILE)
        MeetLimit(Limit::OpenFiles, 0, 0);
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
        return MeetLimit(Limit::AddressSpace, most, most - std::min(most, used));
    const std::uint64_t most_maps = MostMaps();
    const std::uint64_t maps = CountMaps();
    if (maps + spare_maps >= most_maps && most_maps != 0)
        MeetLimit(Limit::Maps, most_maps, most_maps - std::min(most_maps, maps));
}

void MeetNoRoom(int file, std::uint64_t done, std::uint64_t more)
{
    const KeepErrno keep;
    FileSystem full;
    if (errno != ENOSPC || fstat(file, &full.status) != 0 || fstatvfs(file, &full.room) != 0)
        return;
    if (!full.IsShared() || full.Bytes(full.room.f_bavail) < more)
        return meet_full(full, done);
    const Commitment now = ReadCommitment();
    MeetLimit(Limit::Commitment, now.limit, now.limit - std::min(now.limit, now.promised) + done);
}

void MeetNoNewFile(const char* path)
{
    const KeepErrno keep;
    FileSystem full;
    Path folder;
    if (errno != ENOSPC || !folder.SetFolderOf(path) || stat(folder.Text(), &full.status) != 0 ||
        statvfs(folder.Text(), &full.room) != 0)
        return;
    if (has_no_more_files(full))
        MeetLimit(full.IsShared() ? Limit::SharedMemoryFiles : Limit::DiskFiles, full.room.f_files,
                  full.room.f_favail);
    else
        meet_full(full, 0);
}

std::uint32_t TellLimits(char* text, std::size_t size)
{
    const char* separator = "";
    *text = '\0';
    for (int i = 0; i < LimitCount; ++i) {
        if ((met.set & 1u << i) == 0)
            continue;
        const auto in_units = [unit = forms[i].unit](std::uint64_t number) {
            return static_cast<unsigned long long>(number >> unit);
        };
        print(text, size, separator);
        print(text, size, forms[i].format, in_units(met.numbers[i].most),
              in_units(met.numbers[i].left));
        separator = "; ";
    }
    return met.set;
}
