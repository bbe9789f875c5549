#ifndef PLATFORM_POSIX_TIMEZONE_H
#define PLATFORM_POSIX_TIMEZONE_H

// What the C library knows of the time zone stands behind a lock of its own, which a child of a
// process with threads may find held for ever. Nothing here allocates but the first look, and one
// after the time zone was changed.

/// Looks at the time zone, unless this is a child that can't.
void RememberTimeZone();

/// To be called in a child, before which the parent has called RememberTimeZone(): if the parent
/// had several threads, the child goes by what was so then.
void KeepTimeZone();

/// By how many seconds the local time is ahead of the universal one; looks again if it can.
long SecondsEast();

#endif
