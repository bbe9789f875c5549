#ifndef MEM_REASON_H
#define MEM_REASON_H

#include "mempager_export.h"

#include <cstddef>
#include <cstdint>
#include <iosfwd>

/// Why a call of the library was refused, as a record that a program can read.
///
/// Each thread has the record of its own last refused call; a call that succeeds leaves it alone.
/// Keeping it allocates nothing and costs nothing as long as calls succeed. Threads: each sees its
/// own.
struct MEMPAGER_EXPORT Mem_Reason {
    /// What was refused.
    enum class Operation : unsigned char {
        None,           ///< nothing yet, on this thread
        Allocate,       ///< a new piece, or its first mapping
        Register,       ///< a descriptor, or a handle for a piece
        Map,            ///< a mapping of a piece that exists
        Cache,          ///< a mapping ahead
        Other,          ///< a call on a piece that doesn't bear it
        HostAllocation, ///< by operator new or malloc, of the host or of this library
    };

    /// What stood in the way.
    enum class Limit : unsigned char {
        SharedMemory,      ///< it is full
        SharedMemoryNames, ///< it takes no more names
        Disk,              ///< the temp folder's disk is full
        DiskNames,         ///< it takes no more names
        Quota,             ///< the user's share of the disk is used up
        Group,             ///< the memory of the process's control group, or job
        Machine,           ///< the machine's memory
        Commitment,        ///< what the machine may promise
        AddressSpace,      ///< this process's
        Maps,              ///< how many this process may have
        FileSize,          ///< the largest file that this process may write
        Descriptors,       ///< how many files this process may have open
        OpenFiles,         ///< how many the machine may have open
        Setting,           ///< one of MEM_MemoryConfiguration's
        Memory,            ///< an allocation failed, though the cache was given up
        Request,           ///< what was asked for can't be had at any time
        Descriptor,        ///< it is none, or forged, or what it describes is gone
        FreedPiece,        ///< the piece was freed
        Ended,             ///< the process is ending
        Unknown,           ///< the system says no more than `error`
    };

    Operation operation = Operation::None; ///< what was refused
    Limit limit = Limit::Unknown;          ///< what stood in the way; the first, if several did
    unsigned long error = 0;               ///< the system's number for it; 0 if it has said none
    std::uint64_t wanted = 0;              ///< bytes; 0 where none were asked for
    std::uint64_t most = 0;   ///< the limit itself, in bytes or in how many; 0 if it isn't known
    std::uint64_t left = 0;   ///< what was left of it
    std::uint64_t number = 0; ///< of the refusal, counted by the thread from 1: tells a new one
    char text[192] = "";      ///< the limits with their numbers, in words; may be empty

    /// Of the calling thread's last refused call.
    static Mem_Reason Last() noexcept;

    /// Makes `text` these words, cut to what fits.
    void SetText(const char* words) noexcept;

    /// Writes it as one line without an end, cut to `size` bytes with its zero.
    void Describe(char* line, std::size_t size) const noexcept;
};

/// Writes that line.
MEMPAGER_EXPORT std::ostream& operator<<(std::ostream& out, const Mem_Reason& reason);

#endif
