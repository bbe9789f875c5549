#ifndef ZOR_ZOR_SYSTEM_H
#define ZOR_ZOR_SYSTEM_H

#include "Rw/RWCString.h"
#include "mempager_export.h"

#include <cstdint>

/// The machine's memory at one moment, in MB of 1048576 bytes.
struct Zor_OSMemoryInfo {
    std::uint64_t address_space = 0;  ///< that a process may have
    std::uint64_t total_ram = 0;      ///< of the machine
    std::uint64_t total_swap = 0;     ///< swap space
    std::uint64_t available_ram = 0;  ///< to be had without swapping
    std::uint64_t available_swap = 0; ///< swap space that is free
};

/// This process's address space at one moment, in bytes.
struct Zor_ProcessMemoryInfo {
    std::uint64_t largest_free_block = 0; ///< the longest stretch that is free
    std::uint64_t used_address_space = 0; ///< all mappings
};

/// Further details that a caller can ask for. There are none: null is passed.
class Zor_ProcessMemoryInfoEx;

/// Questions about the machine and this process. Threads: any.
class MEMPAGER_EXPORT Zor_System
{
public:
    /// The process's system object. Not owned by the caller.
    static Zor_System* GetHandle();

    /// Fills `info`; what can't be found out is 0. Allocates nothing. @return 0.
    int GetOsMemInfo(Zor_OSMemoryInfo& info);

    /// The system's name and version. Throws std::bad_alloc.
    RWCString GetOsName();

    /// The process's id and the name of its program. @return 0. Throws std::bad_alloc.
    static int GetCurrentProcessInfo(unsigned long& id, RWCString& name);

    /// Fills `info` and appends the details to the file `path`, unless that is null or can't be
    /// written to. The other arguments play no part.
    /// @return 0; -1 if the numbers can't be found out.
    int GetZorProcessMemoryInfo(Zor_ProcessMemoryInfo& info, int level, const char* path,
                                bool verbose, Zor_ProcessMemoryInfoEx* details);
};

#endif
