#ifndef PLATFORM_POSIX_DESCRIPTORS_H
#define PLATFORM_POSIX_DESCRIPTORS_H

#include <sys/types.h>

// Descriptors that don't stand in for standard streams: where a host has closed one of those, the
// system gives its number to the next file, and whatever is written to the stream goes there.

/// As open() does, with O_CLOEXEC; the descriptor is 3 or greater. What another thread writes to a
/// standard stream in the moment before it is so, doesn't stay in a new file.
/// @return -1 with errno.
int OpenDescriptor(const char* path, int flags, mode_t mode = 0);

/// Another descriptor, 3 or greater, of the same open file. @return -1 with errno.
int Duplicate(int descriptor);

#endif
