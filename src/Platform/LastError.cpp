#include "Platform/LastError.h"

#include "Platform/PerThread.h"

namespace
{

/// Not the system's own, which successful calls of others may change before somebody asks.
PLATFORM_PER_THREAD PerThread<unsigned long> last_error{0};

} // namespace

unsigned long Platform::LastError()
{
    return *last_error;
}

void Platform::SetLastError(unsigned long error)
{
    *last_error = error;
}
