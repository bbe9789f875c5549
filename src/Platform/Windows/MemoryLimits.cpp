#include "Platform/Windows/MemoryLimits.h"

#include "Platform/Windows/Process.h"
#include "Platform/Windows/System.h"

#include <algorithm>

#include <psapi.h>

namespace
{

std::uint64_t end_of_addresses()
{
    SYSTEM_INFO information;
    GetSystemInfo(&information);
    return reinterpret_cast<std::uintptr_t>(information.lpMaximumApplicationAddress) + 1;
}

} // namespace

MemoryTable::MemoryTable()
{
    MEMORYSTATUSEX status{};
    status.dwLength = sizeof status;
    if (GlobalMemoryStatusEx(&status)) {
        total = status.ullTotalPhys;
        available = status.ullAvailPhys;
        address_space = status.ullTotalVirtual;
        free_addresses = status.ullAvailVirtual;
    }
    PERFORMANCE_INFORMATION performance{};
    if (GetPerformanceInfo(&performance, sizeof performance)) {
        committed = std::uint64_t{performance.CommitTotal} * performance.PageSize;
        commit_limit = std::uint64_t{performance.CommitLimit} * performance.PageSize;
    }
}

JobLimit::JobLimit()
{
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION job{};
    if (!QueryInformationJobObject(nullptr, JobObjectExtendedLimitInformation, &job, sizeof job,
                                   nullptr))
        return;
    if ((job.BasicLimitInformation.LimitFlags & JOB_OBJECT_LIMIT_PROCESS_MEMORY) != 0) {
        bytes = job.ProcessMemoryLimit;
        peak = job.PeakProcessMemoryUsed;
    }
    if ((job.BasicLimitInformation.LimitFlags & JOB_OBJECT_LIMIT_JOB_MEMORY) != 0 &&
        job.JobMemoryLimit < bytes) {
        bytes = job.JobMemoryLimit;
        peak = job.PeakJobMemoryUsed;
    }
}

std::uint64_t WindowsProcess::MemoryLimit()
{
    return std::min(MemoryTable().total, JobLimit().bytes);
}

Platform::Process::Memory WindowsProcess::MemoryNow()
{
    const MemoryTable now;
    const auto above = [](std::uint64_t all, std::uint64_t part) {
        return all - std::min(all, part);
    };
    Memory memory;
    memory.total = now.total;
    memory.available = now.available;
    memory.swap = above(now.commit_limit, now.total);
    memory.available_swap = std::min(memory.swap, above(now.CommitmentLeft(), now.available));
    memory.committed = now.committed;
    memory.address_space = now.address_space;
    memory.end_of_addresses = end_of_addresses();
    return memory;
}
