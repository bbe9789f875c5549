#include "Platform/Windows/Limits.h"

#include "Platform/AddressSpaceUse.h"
#include "Platform/LastError.h"
#include "Platform/SystemPlatform.h"
#include "Platform/Windows/Failure.h"
#include "Platform/Windows/Files.h"
#include "Platform/Windows/MemoryLimits.h"

namespace
{

using Platform::Subject;

bool is_for_lack_of_commitment(DWORD error)
{
    return error == ERROR_COMMITMENT_LIMIT || error == ERROR_NOT_ENOUGH_MEMORY ||
           error == ERROR_OUTOFMEMORY || error == ERROR_NO_SYSTEM_RESOURCES;
}

} // namespace

void MeetNoCommitment(std::uint64_t size)
{
    const DWORD error = Platform::LastError();
    if (error == ERROR_PAGEFILE_QUOTA || error == ERROR_NOT_ENOUGH_QUOTA)
        return MeetLimit(Subject::Quota, 0, 0);
    if (!is_for_lack_of_commitment(error))
        return;
    const MemoryTable now;
    const JobLimit job;
    if (job.bytes < now.commit_limit && size > job.Left())
        MeetLimit(Subject::Group, job.bytes, job.Left());
    else
        MeetLimit(Subject::Commitment, now.commit_limit, now.CommitmentLeft());
}

void MeetNoRoom(const char* path)
{
    const DWORD error = Platform::LastError();
    if (error == DiskQuotaExceeded)
        return MeetLimit(Subject::Quota, 0, 0);
    if (error != ERROR_DISK_FULL && error != ERROR_HANDLE_DISK_FULL)
        return;
    FolderOf folder(path);
    ULARGE_INTEGER own{};
    ULARGE_INTEGER all{};
    if (GetDiskFreeSpaceExA(folder.text, &own, &all, nullptr))
        MeetLimit(Subject::Disk, all.QuadPart, own.QuadPart);
}

void MeetNoAddresses(std::uint64_t size)
{
    const DWORD error = Platform::LastError();
    if (is_for_lack_of_commitment(error) || error == ERROR_INVALID_ADDRESS) {
        Platform::Process& process = Platform::SystemProcess();
        Platform::AddressSpaceUse use;
        if (use.Read(process) && use.LargestFree() < size)
            MeetLimit(Subject::AddressSpace, process.MemoryNow().address_space, use.LargestFree());
    }
}
