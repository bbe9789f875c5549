#include "machine.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <limits>

#include <linux/magic.h>
#include <sys/statfs.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

constexpr std::uint64_t kMegabyte = 1 << 20;
constexpr std::uint64_t kNoLimit = std::numeric_limits<std::uint64_t>::max();

/// What stays of `bytes` when `taken` of them are gone.
std::uint64_t rest(std::uint64_t bytes, std::uint64_t taken)
{
    return bytes > taken ? bytes - taken : 0;
}

/// The figure behind `key` in a file of lines like "MemAvailable:  123 kB", in bytes.
std::uint64_t kilobytes_in(const char* path, const std::string& key)
{
    std::ifstream file(path);
    for (std::string word; file >> word;) {
        std::uint64_t figure = 0;
        if (word == key && file >> figure)
            return figure * 1024;
    }
    return 0;
}

std::uint64_t number_in(const char* path, std::uint64_t otherwise)
{
    std::uint64_t number = 0;
    return std::ifstream(path) >> number ? number : otherwise;
}

/// What a container's limit leaves; a huge number if there is none.
std::uint64_t memory_in_group()
{
    const std::uint64_t limit =
        std::min(number_in("/sys/fs/cgroup/memory.max", kNoLimit),
                 number_in("/sys/fs/cgroup/memory/memory.limit_in_bytes", kNoLimit));
    const std::uint64_t used =
        std::max(number_in("/sys/fs/cgroup/memory.current", 0),
                 number_in("/sys/fs/cgroup/memory/memory.usage_in_bytes", 0));
    return rest(limit, used);
}

std::uint64_t free_in(const struct statfs& status)
{
    return std::uint64_t{status.f_bavail} * static_cast<std::uint64_t>(status.f_bsize);
}

/// What shared memory may take without a shortage of memory.
std::uint64_t room_in_shared_memory()
{
    const std::uint64_t memory =
        std::min(kilobytes_in("/proc/meminfo", "MemAvailable:"), memory_in_group());
    struct statfs status;
    return statfs("/dev/shm", &status) == 0
               ? std::min(rest(free_in(status), 16 * kMegabyte), rest(memory, 512 * kMegabyte))
               : 0;
}

/// What the pager may put into the temp folder when shared memory has no room. It doesn't, if that
/// folder is memory, too.
std::uint64_t room_on_disk()
{
    const char* const folder = std::getenv("TEMP");
    struct statfs status;
    if (statfs(folder != nullptr ? folder : "/var/tmp", &status) != 0)
        return 0;
    return status.f_type == TMPFS_MAGIC ? 0 : rest(free_in(status), 1024 * kMegabyte);
}

/// The child's part of TryMalloc(): what it gets goes with it.
std::size_t take_blocks(const std::vector<std::uint64_t>& sizes)
{
    std::size_t got = 0;
    for (const std::uint64_t size : sizes) {
        char* volatile block = static_cast<char*>(std::malloc(size));
        if (block == nullptr)
            break;
        std::memset(block, 1, size);
        ++got;
    }
    return got;
}

} // namespace

std::uint64_t FindRoom()
{
    const std::uint64_t room = room_in_shared_memory() + room_on_disk();
    return room - room / 8; // regions are a little larger than the pieces in them
}

std::uint64_t MostAddressSpace()
{
    return kilobytes_in("/proc/self/status", "VmPeak:");
}

std::optional<std::size_t> TryMalloc(const std::vector<std::uint64_t>& sizes)
{
    int ends[2];
    if (pipe(ends) != 0)
        return std::nullopt;
    const pid_t child = fork();
    std::size_t got = 0;
    if (child == 0) {
        got = take_blocks(sizes);
        _exit(write(ends[1], &got, sizeof got) == sizeof got ? 0 : 1);
    }
    close(ends[1]);
    const bool told = child > 0 && read(ends[0], &got, sizeof got) == sizeof got;
    close(ends[0]);
    if (child > 0)
        waitpid(child, nullptr, 0);
    return told ? std::optional(got) : std::nullopt;
}
