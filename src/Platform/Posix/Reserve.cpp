#include "Platform/Posix/Reserve.h"

#include "Platform/Posix/HugePages.h"
#include "Platform/Posix/Limits.h"
#include "Platform/Posix/MemoryLimits.h"
#include "Platform/Posix/Paths.h"
#include "Platform/Posix/WriteSignals.h"

#include <algorithm>
#include <cerrno>
#include <limits>

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/resource.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace
{

constexpr std::uint64_t disk_step = std::uint64_t{1} << 30;
constexpr std::uint64_t memory_step = 8 * HugePage; // a look takes as long as a part of one
constexpr std::uint64_t least_step = std::uint64_t{1} << 16;

bool is_memory(const struct statfs& status)
{
    const auto type = static_cast<unsigned long>(status.f_type);
    return type == TMPFS_MAGIC || type == RAMFS_MAGIC;
}

bool lies_in_memory(int file)
{
    struct statfs status;
    return fstatfs(file, &status) != 0 || is_memory(status);
}

bool write_zeros(int file, std::uint64_t offset, std::uint64_t size)
{
    static const char zeros[1 << 16] = {};
    for (std::uint64_t done = 0; done < size;) {
        const std::size_t step = std::min<std::uint64_t>(size - done, sizeof zeros);
        const ssize_t written = pwrite(file, zeros, step, static_cast<off_t>(offset + done));
        if (written < 0 && errno != EINTR)
            return false;
        done += static_cast<std::uint64_t>(std::max<ssize_t>(written, 0));
    }
    return true;
}

bool reserve_step(int file, std::uint64_t offset, std::uint64_t size)
{
    if (fallocate(file, 0, static_cast<off_t>(offset), static_cast<off_t>(size)) == 0)
        return true;
    return errno == EOPNOTSUPP && write_zeros(file, offset, size);
}

/// `look` says, before each step, how many of so many bytes more it may take, and is told how many
/// were done.
template <class Look>
bool reserve_in_steps(int file, std::uint64_t size, std::uint64_t step, Look look)
{
    for (std::uint64_t done = 0; done < size;) {
        const std::uint64_t now = look(std::min(step, size - done), done);
        if (now == 0)
            return false;
        if (reserve_step(file, done, now))
            done += now;
        else if (errno == EINTR)
            step = std::max(std::min(step, now) / 2, least_step); // the whole step was undone
        else
            return MeetNoRoom(file, done, now), false;
    }
    return true;
}

/// Steps end where huge pages do. Near a limit they are small, and no such page is asked for.
std::uint64_t look_and_offer(const MemoryHeadroom& headroom, const HugeFile& huge,
                             std::uint64_t more, std::uint64_t done)
{
    const std::uint64_t in_huge_pages = (more + HugePage - 1) / HugePage * HugePage;
    std::uint64_t now = huge.TakesThemAnyway()
                            ? std::min(more, headroom.Grants(in_huge_pages, done, HugePage))
                            : headroom.Grants(more, done);
    if (now < more && now > HugePage)
        now -= now % HugePage;
    huge.Offer(done, now);
    return now;
}

} // namespace

bool FitsFileLimit(std::uint64_t size)
{
    rlimit limit{};
    if (getrlimit(RLIMIT_FSIZE, &limit) != 0)
        return false;
    const std::uint64_t largest = std::numeric_limits<off_t>::max();
    return size <= std::min<std::uint64_t>(limit.rlim_cur, largest) || Fail(EFBIG);
}

bool Reserve(int file, std::uint64_t size)
{
    const NoWriteSignals quiet;
    if (!FitsFileLimit(size))
        return false;
    if (!lies_in_memory(file))
        return reserve_in_steps(file, size, disk_step, [](auto step, auto) { return step; });

    // Other processes reserve at the same time: one look for the whole size isn't enough.
    const MemoryHeadroom headroom;
    const HugeFile huge(file, size);
    return reserve_in_steps(file, size, memory_step,
                            [&headroom, &huge](std::uint64_t more, std::uint64_t done) {
                                return look_and_offer(headroom, huge, more, done);
                            });
}

bool LiesOnDisk(const char* folder)
{
    struct statfs status;
    return statfs(folder, &status) == 0 && !is_memory(status);
}
