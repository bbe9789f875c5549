#ifndef PLATFORM_WINDOWS_MEMORYLIMITS_H
#define PLATFORM_WINDOWS_MEMORYLIMITS_H

#include <cstdint>

/// The machine's memory at this moment, in bytes; 0 for what isn't known. Allocates nothing.
struct MemoryTable {
    MemoryTable();

    std::uint64_t CommitmentLeft() const
    {
        return commit_limit < committed ? 0 : commit_limit - committed;
    }

    std::uint64_t total = 0;
    std::uint64_t available = 0;
    std::uint64_t address_space = 0; ///< of this process
    std::uint64_t free_addresses = 0;
    std::uint64_t committed = 0;    ///< that the machine has promised to its processes
    std::uint64_t commit_limit = 0; ///< that it can promise: its memory and its paging files
};

/// What the job that this process runs in, if it does, may have of memory: it, or each process.
struct JobLimit {
    JobLimit();

    /// The peak is all that the system tells of what is used: at least so much can't be had.
    std::uint64_t Left() const { return bytes - (peak < bytes ? peak : bytes); }

    std::uint64_t bytes = UINT64_MAX; ///< that if there is no limit
    std::uint64_t peak = 0;
};

#endif
