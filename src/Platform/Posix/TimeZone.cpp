#include "Platform/Posix/TimeZone.h"

#include "Platform/KeepErrno.h"

#include <atomic>
#include <ctime>

#include <sys/single_threaded.h>

namespace
{

std::atomic<bool> has_threads = false;
std::atomic<bool> time_zone_is_locked = false;
std::atomic<long> seconds_east = 0;

} // namespace

void RememberTimeZone()
{
    const KeepErrno keep;
    has_threads = __libc_single_threaded == 0;
    if (time_zone_is_locked)
        return;
    tm local{};
    const std::time_t now = std::time(nullptr);
    tzset();
    if (localtime_r(&now, &local) != nullptr)
        seconds_east = local.tm_gmtoff;
}

void KeepTimeZone()
{
    if (has_threads)
        time_zone_is_locked = true;
}

long SecondsEast()
{
    RememberTimeZone();
    return seconds_east;
}
