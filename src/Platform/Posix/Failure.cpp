#include "Platform/Posix/Failure.h"

#include "Platform/LastError.h"
#include "Platform/Posix/Limits.h"

#include <cerrno>

namespace
{

/// Not errno itself, which successful calls of others may change before somebody asks. The model
/// keeps the first touch in a thread from allocating.
[[gnu::tls_model("initial-exec")]] constinit thread_local unsigned long last_error = 0;

} // namespace

unsigned long Platform::LastError()
{
    return last_error;
}

void Platform::SetLastError(unsigned long error)
{
    last_error = error;
}

void KeepCause()
{
    last_error = static_cast<unsigned long>(errno);
    MeetLimitOf(errno);
}
