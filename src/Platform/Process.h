#ifndef PLATFORM_PROCESS_H
#define PLATFORM_PROCESS_H

#include "Platform/Serving.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace Platform
{

/// This process and the machine it runs on: its memory, its forks and failed allocations, and what
/// it leaves behind in words. The rules of Mappings hold.
class Process : public Serving<Process>
{
public:
    /// This process's id; after a fork the child's own.
    virtual long ProcessId() = 0;

    /// A number that no other living thread of this process has.
    virtual long ThreadId() = 0;

    /// A number that no other process can foresee.
    virtual std::uint64_t RandomNumber() = 0;

    /// Calls `call` with `argument`, on this thread, which can't be cancelled by another
    /// meanwhile: for the host's code, called from where nothing may unwind through.
    virtual void CallUncancelled(void (*call)(void* argument), void* argument) = 0;

    /// Registers functions that run around every fork from now on: `prepare` before it, in the
    /// forking thread, then `parent` in the parent and `child` in the child. What is registered
    /// later is prepared earlier. A system without fork does nothing. Never undone.
    /// @return false if there was no memory for it.
    virtual bool OnFork(void (*prepare)(), void (*parent)(), void (*child)()) = 0;

    /// Whether this thread is the only one left of a process that ends, because the system has
    /// ended the others wherever they were: what they held, they hold for ever.
    virtual bool OthersHaveEnded() = 0;

    // Memory --------------------------------------------------------------------------------

    /// Bytes of memory that this process could ever have: the machine's, or less where a limit
    /// is set on the process's group.
    virtual std::uint64_t MemoryLimit() = 0;

    /// Memory at this moment, in bytes. What can't be found out is 0.
    struct Memory {
        std::uint64_t total = 0; ///< the machine's
        std::uint64_t available = 0;
        std::uint64_t swap = 0;
        std::uint64_t available_swap = 0;
        std::uint64_t committed = 0;        ///< what the machine has promised to its processes
        std::uint64_t address_space = 0;    ///< that this process may use
        std::uint64_t end_of_addresses = 0; ///< where what a process can map ends
        std::uint64_t most_maps = 0;        ///< that a process may have; 0 if no limit is known
    };
    virtual Memory MemoryNow() = 0;

    /// A range of addresses that this process takes.
    struct Map {
        enum class Kind {
            OpenMapping, ///< what a mapping of this layer's takes by itself
            View,        ///< of such a mapping
            Heap,
            Stack,
            Anonymous,
            File,
            Other
        };
        std::uint64_t begin = 0;
        std::uint64_t size = 0;
        bool readable = false;
        bool writable = false;
        bool executable = false;
        bool shared = false; ///< with other processes
        Kind kind = Kind::Other;
        std::string_view name; ///< a file's path, or what the system calls it; may be empty
    };

    /// A walk over maps.
    class Maps
    {
    public:
        /// Takes one, in the order of addresses. Calls nothing of the platform, allocates nothing.
        virtual void Take(const Map& map) = 0;

    protected:
        ~Maps() = default;
    };

    /// Gives `maps` all maps of this process. Those of this library are told by what it made, not
    /// by their names. Allocates nothing. @return false if that can't be found out.
    virtual bool ListMaps(Maps& maps) = 0;

    /// An allocation of this thread that has failed.
    struct FailedAllocation {
        std::size_t size; ///< what was asked for, in bytes; 0 if that can't be known
        bool throws;      ///< whether the caller gets std::bad_alloc in the end; else it gets null
        bool reported;    ///< an earlier call for the same failure has written a report
        std::uint64_t& mark; ///< a number that the handler keeps for each thread; 0 at first
    };

    /// What a failed allocation asks for help. Returns not 0 for another try, or throws
    /// std::bad_alloc.
    using AllocationHandler = int (*)(const FailedAllocation& failed);

    /// Has `handler` called, from now on, whenever an allocation of this process fails, on the
    /// thread that failed and as long as it asks for another try. A failure inside the handler
    /// doesn't call it again. In force for `operator new`, in place of the handler that the host
    /// had installed, and, where this build and the host let malloc and its kin come by this
    /// library (Inspection::Look() tells), for those, which answer null when the handler throws.
    virtual void OnAllocationFailure(AllocationHandler handler) = 0;

    // Words ---------------------------------------------------------------------------------

    /// Writes the system's name and version, cut to `size` bytes with its zero.
    virtual void SystemName(char* text, std::size_t size) = 0;

    /// Writes the name of this process's program in the same way.
    virtual void ProcessName(char* text, std::size_t size) = 0;

    /// Writes the local time and date in the C library's usual form of 24 characters, and a line
    /// end, in the same way. Once OnAllocationFailure() was called, it allocates nothing unless
    /// the host changes the time zone.
    virtual void TimeAndDate(char* text, std::size_t size) = 0;

    /// Writes the system's text for an error's number in the same way.
    virtual void ErrorText(unsigned long error, char* text, std::size_t size) = 0;

    // The following two are for a plain file. A link isn't followed: whoever may write to the
    // folder could have it lead to a file of this user's. What isn't a plain file is a failure.
    // Neither waits for another process, and neither allocates.

    /// Cuts the file at `path` to nothing if it holds more than `most` bytes. @return whether it
    /// did.
    virtual bool TruncateLongFile(const char* path, std::uint64_t most) = 0;

    /// Adds `text` to the file at `path`, which is made if there is none. It arrives in one piece,
    /// whoever else adds to the file. @return false if it didn't, or not all of it.
    virtual bool AppendToFile(const char* path, const char* text, std::size_t size) = 0;

    /// Writes the calls that led here to standard error. Allocates nothing.
    virtual void StackTrace() = 0;

    /// Writes bytes to the process's standard error. Takes no lock of the C library and
    /// allocates nothing; a failure is ignored.
    virtual void WriteStandardError(const char* text, std::size_t size) = 0;

protected:
    ~Process() = default;
};

} // namespace Platform

#endif
