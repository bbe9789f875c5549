#ifndef PLATFORM_WINDOWS_FAILURE_H
#define PLATFORM_WINDOWS_FAILURE_H

#include "Platform/Windows/System.h"

/// The system's number that its header lacks.
inline constexpr DWORD DiskQuotaExceeded = 1295;

/// Sets the system's last error. @return false
inline bool Fail(DWORD error)
{
    SetLastError(error);
    return false;
}

/// Keeps the system's last error as the cause of this thread's last failing operation.
void KeepCause();

/// Passes an operation's result on and keeps the cause if it is a failure.
template <class Result>
Result Reported(Result result)
{
    if (!result)
        KeepCause();
    return result;
}

/// Whether an error tells that memory or a disk is full, or that this user has had its share.
bool IsForLackOfSpace(DWORD error);

#endif
