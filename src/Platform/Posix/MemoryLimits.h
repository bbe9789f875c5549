#ifndef PLATFORM_POSIX_MEMORYLIMITS_H
#define PLATFORM_POSIX_MEMORYLIMITS_H

#include <cstdint>

/// The least memory limit in bytes that is set on this process's control group or on one above
/// it, of version 1 and 2; the greatest number if there is none. The arguments are the tables to
/// read, in the form of /proc. Allocates nothing.
std::uint64_t ControlGroupLimit(const char* groups = "/proc/self/cgroup",
                                const char* mounts = "/proc/self/mountinfo");

/// Bytes of the machine's memory.
std::uint64_t MachineMemory();

/// Bytes of address space that the process may have.
std::uint64_t AddressSpaceLimit();

#endif
