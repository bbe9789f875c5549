#include "Platform/Posix/Reserve.h"

#include "Platform/Posix/Allowance.h"
#include "Platform/Posix/HugePages.h"
#include "Platform/Posix/Limits.h"
#include "Platform/Posix/MemoryLimits.h"
#include "Platform/Posix/Paths.h"
#include "Platform/Posix/WriteSignals.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <optional>

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
bool reserve_in_steps(int file, std::uint64_t size, std::uint64_t step, Look&& look)
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

constinit Allowance allowance;

/// Looks before each step at what memory is left, as far as an earlier look doesn't stand for this
/// one, and prepares for huge pages what is to be taken. For one region.
class MemoryLook
{
public:
    MemoryLook(int file, std::uint64_t size) : m_huge(file, size) {}

    /// Steps end where huge pages do. Near a limit they are small, and no such page is asked for.
    std::uint64_t operator()(std::uint64_t more, std::uint64_t done)
    {
        const std::uint64_t in_huge_pages = (more + HugePage - 1) / HugePage * HugePage;
        std::uint64_t now = m_huge.TakesThemAnyway()
                                ? std::min(more, granted(in_huge_pages, done, HugePage))
                                : granted(more, done, MemoryHeadroom::LeastGrant);
        if (now < more && now > HugePage)
            now -= now % HugePage;
        m_huge.Offer(done, now);
        return now;
    }

private:
    std::uint64_t granted(std::uint64_t more, std::uint64_t done, std::uint64_t least)
    {
        if (allowance.Take(more))
            return more;
        if (!m_headroom)
            m_headroom.emplace();
        const std::uint64_t asked = more < Allowance::Size ? Allowance::Plenty : more;
        const std::uint64_t left = m_headroom->Grants(asked, done, least);
        allowance.Renew(left, more);
        return std::min(left, more);
    }

    const HugeFile m_huge;
    std::optional<MemoryHeadroom> m_headroom; ///< once: it finds the groups
};

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
    return reserve_in_steps(file, size, memory_step, MemoryLook(file, size));
}

bool LiesOnDisk(const char* folder)
{
    struct statfs status;
    return statfs(folder, &status) == 0 && !is_memory(status);
}
