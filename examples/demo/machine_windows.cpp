#include "machine.h"

#include <algorithm>
#include <cstdlib>

#define WIN32_LEAN_AND_MEAN
#include <windows.h>

#include <psapi.h>

namespace
{

constexpr std::uint64_t kMegabyte = 1 << 20;

std::uint64_t rest(std::uint64_t bytes, std::uint64_t taken)
{
    return bytes > taken ? bytes - taken : 0;
}

} // namespace

/// Regions can't lie in memory alone here: what the machine may still promise is what counts.
std::uint64_t FindRoom()
{
    MEMORYSTATUSEX memory{};
    memory.dwLength = sizeof memory;
    if (!GlobalMemoryStatusEx(&memory))
        return 0;
    const std::uint64_t room =
        rest(std::min(memory.ullAvailPageFile, memory.ullAvailPhys), 512 * kMegabyte);
    return room - room / 8; // regions are a little larger than the pieces in them
}

/// The system keeps no peak of addresses.
std::uint64_t MostAddressSpace()
{
    PROCESS_MEMORY_COUNTERS counters{};
    return GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof counters)
               ? counters.PeakPagefileUsage
               : 0;
}

/// There is no limit of address space that malloc could run into, and no fork to try it in.
std::optional<std::size_t> TryMalloc(const std::vector<std::uint64_t>&)
{
    return std::nullopt;
}
