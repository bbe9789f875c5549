#ifndef PLATFORM_POSIX_THREADID_H
#define PLATFORM_POSIX_THREADID_H

/// A number that no other living thread of this process has.
long CurrentThreadId();

#endif
