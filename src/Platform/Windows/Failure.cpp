#include "Platform/Windows/Failure.h"

#include "Platform/LastError.h"

#include <algorithm>
#include <iterator>

void KeepCause()
{
    Platform::SetLastError(GetLastError());
}

bool IsForLackOfSpace(DWORD error)
{
    constexpr DWORD errors[] = {ERROR_COMMITMENT_LIMIT,    ERROR_NOT_ENOUGH_MEMORY,
                                ERROR_OUTOFMEMORY,         ERROR_DISK_FULL,
                                ERROR_HANDLE_DISK_FULL,    DiskQuotaExceeded,
                                ERROR_NO_SYSTEM_RESOURCES, ERROR_WORKING_SET_QUOTA,
                                ERROR_PAGEFILE_QUOTA,      ERROR_NOT_ENOUGH_QUOTA};
    return std::find(std::begin(errors), std::end(errors), error) != std::end(errors);
}
