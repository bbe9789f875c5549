#include "Platform/Posix/Failure.h"

#include "Platform/LastError.h"
#include "Platform/Posix/Limits.h"

#include <cerrno>

void KeepCause()
{
    Platform::SetLastError(static_cast<unsigned long>(errno));
    MeetLimitOf(errno);
}
