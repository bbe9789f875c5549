#ifndef PLATFORM_PLATFORM_H
#define PLATFORM_PLATFORM_H

#include <cstddef>
#include <cstdint>
#include <string_view>

/// All that the library needs of an operating system, in the words of its callers.
///
/// One instance serves the process; Get() returns it. Each system has a subclass of its own in a
/// folder beside this header, and only those folders include system headers.
///
/// Common rules:
/// - Any thread may call any operation.
/// - No operation throws. A failure is told by the result; LastError() then gives the cause, on
///   the same thread, until that thread's next failing operation.
/// - Texts are zero-terminated byte strings and stay the caller's. Sizes and offsets are bytes.
/// - Handles and views belong to whoever asked for them and end only through CloseMapping() and
///   UnmapView(). These two, and whatever they call, allocate no memory.
class Platform
{
public:
    /// The instance that serves this process, made at the first call and never destroyed, so
    /// that calls stay good in the destructors of static objects.
    static Platform& Get();

    /// Puts another instance in front and returns the one that served until now; null brings
    /// the real one back. For tests; the caller keeps ownership and makes sure that no other
    /// thread is inside the library.
    static Platform* Replace(Platform* instance);

    // Mappings ------------------------------------------------------------------------------

    /// Makes a named mapping of exactly `size` bytes (at least 1) backed by shared memory, all
    /// zeros. The memory is reserved before the call returns: touching a view of it later can't
    /// fail for want of memory. Any process of any user can open it by `name` for reading while
    /// the mapping is open; only this process can write to it.
    ///
    /// `name` has no separator and at most 255 bytes. A name that exists already is a failure,
    /// and what bears it is left alone.
    ///
    /// Where shared memory has no room, or what memory is left to this process wouldn't bear it,
    /// the mapping lies in a file in `spare_folder` instead, if that is on a disk; only processes
    /// of the same user can open it then.
    ///
    /// @return a handle for MapView() and CloseMapping(); null on failure, with nothing left.
    virtual void* CreateSharedMapping(const char* name, std::uint64_t size,
                                      const char* spare_folder) = 0;

    /// What of a mapping over a file could not be had.
    enum class FileFault { None, File, Mapping };

    /// Makes a new file of `size` bytes at `path`, private to this user, its disk space reserved,
    /// and a mapping of it that processes of the same user can open by `name` for reading, as
    /// above. A path or a name that exists already is a failure. The file belongs to the caller,
    /// who ends it with RemoveFile() after CloseMapping(). Openers know the two by each other: the
    /// file's own name holds the beginning of `name` up to its second "_", else that is a failure.
    ///
    /// @return a handle as above; null on failure, with nothing left and `*fault` telling of what.
    virtual void* CreateMappingOverFile(const char* path, const char* name, std::uint64_t size,
                                        FileFault* fault) = 0;

    /// Opens a mapping that another process, or this one, has made under `name`, for reading
    /// only: no view of it can be made writable. Any text may be given: what isn't the name of
    /// such a mapping, or no longer, is a failure and is not touched. `spare_folder` is where to
    /// look, too, for mappings that shared memory had no room for.
    /// The bytes stay for as long as the handle or a view of it, whatever the maker does.
    ///
    /// @return a handle for MapView() and CloseMapping(); null on failure.
    virtual void* OpenMapping(const char* name, const char* spare_folder) = 0;

    /// Maps the stretch [offset, offset + size) of an open mapping, readable and writable as the
    /// mapping is. `offset` is a multiple of AllocationGranularity(), and the stretch lies within
    /// the mapping, else that is a failure. Several views of one mapping can live at once. Works
    /// as well after somebody has removed the mapping's name.
    ///
    /// @return the view's first byte; null on failure (no address space, too many maps).
    virtual void* MapView(void* mapping, std::uint64_t offset, std::uint64_t size) = 0;

    /// Ends a view of `size` bytes that MapView() gave. The mapping and its bytes stay.
    /// @return false on failure; the view then still exists.
    virtual bool UnmapView(void* view, std::uint64_t size) = 0;

    /// Ends this process's hold on a mapping and takes its name away, if this process made it.
    /// Views of it, here and in other processes, live on; the memory goes with the last of them.
    /// The handle is gone afterwards, also on failure.
    virtual bool CloseMapping(void* mapping) = 0;

    /// Removes what bears `name` in `folder`, which is MappingFolder() or a spare folder, if it is
    /// a mapping whose creator has ended without closing it, or only a link that is left of one.
    /// Mappings of living processes, and anything that can't be judged, stay, and nobody who can
    /// only read it keeps a dead one. Allocates nothing. @return whether it is gone by this.
    virtual bool RemoveDeadMapping(const char* folder, const char* name) = 0;

    // Files ---------------------------------------------------------------------------------

    /// A walk over the names of a folder.
    class Names
    {
    public:
        /// Takes one name, without the folder.
        virtual void Take(const char* name) = 0;

    protected:
        ~Names() = default;
    };

    /// Gives `names` each entry of `folder` whose name begins with `prefix`. None for a folder
    /// that can't be read.
    virtual void ListFiles(const char* folder, const char* prefix, Names& names) = 0;

    /// Where a walk in steps goes on; at the beginning until it is moved on.
    struct Place {
        std::int64_t at = 0; ///< the system's word for it
        bool ended = false;
    };

    /// The same for a few entries, from `place` on, which is moved behind them; for a folder that
    /// ends or can't be read, to the end. What comes or goes between two steps can be given twice
    /// or be left out; nothing else is left out if a step in which something was removed is made
    /// again from where it began. Allocates nothing.
    virtual void ListSome(const char* folder, const char* prefix, Place& place, Names& names) = 0;

    /// What is known of a process that made a file.
    enum class Maker { Gone, Ended, Running };

    /// Whether the maker of the file at `path`, a process whose id was `process`, still has it:
    /// Gone if no process has that id, Ended if one has but it isn't the maker or runs no more.
    virtual Maker MakerOf(const char* path, long process) = 0;

    /// Removes a file whose maker isn't running. One that is in use stays. Its name ends in "_" and
    /// a number, as all of the library's. Allocates nothing.
    virtual bool RemoveDeadFile(const char* path) = 0;

    /// Removes a file that this process made with CreateMappingOverFile().
    virtual bool RemoveFile(const char* path) = 0;

    /// Free bytes, for this user, on the disk that holds `folder`. @return false on failure.
    virtual bool FreeSpace(const char* folder, double* bytes) = 0;

    // Errors --------------------------------------------------------------------------------

    /// The system's number for the cause of this thread's last failure.
    virtual unsigned long LastError() = 0;

    /// Writes the system's text for `error` into `text`, cut to `size` bytes with its zero.
    virtual void ErrorText(unsigned long error, char* text, std::size_t size) = 0;

    /// What that cause comes to for a mapping or a file that was to be made.
    enum class Cause {
        NameExists, ///< another name will do
        NoRoom,     ///< of memory or disk: it helps if somebody else takes less
        Other
    };
    virtual Cause LastCause() = 0;

    /// Tells which limits stood in the way of this thread's last failing operation on a mapping or
    /// view: writes their names and numbers into `text`, cut to `size` bytes with its zero.
    /// @return a number that is the same for the same limits; 0, and "", if none is known to.
    virtual std::uint32_t LastLimits(char* text, std::size_t size) = 0;

    // Processes and threads -----------------------------------------------------------------

    /// This process's id; after a fork the child's own.
    virtual long ProcessId() = 0;

    /// A number that no other living thread of this process has.
    virtual long ThreadId() = 0;

    /// Keeps the calling thread from being cancelled by another until RestoreCancellation() gets
    /// what this returned. No operation of this class is a point where a thread can be cancelled;
    /// this is for calls of the host's code out of places that nothing may unwind through.
    virtual int HoldOffCancellation() = 0;
    virtual void RestoreCancellation(int before) = 0;

    /// Registers functions that run around every fork from now on: `prepare` before it, in the
    /// forking thread, then `parent` in the parent and `child` in the child. What is registered
    /// later is prepared earlier. A system without fork does nothing. Never undone.
    /// @return false if there was no memory for it.
    virtual bool OnFork(void (*prepare)(), void (*parent)(), void (*child)()) = 0;

    // Memory --------------------------------------------------------------------------------

    /// Offsets of views, and the addresses that views get, are multiples of this.
    virtual std::uint32_t AllocationGranularity() = 0;

    /// Bytes of memory that this process could ever have: the machine's, or less where a limit
    /// is set on the process's group.
    virtual std::uint64_t PhysicalMemory() = 0;

    /// Bytes of memory that the machine has promised to its processes.
    virtual std::uint64_t CommittedMemory() = 0;

    /// Bytes of address space that this process may use.
    virtual std::uint64_t AddressSpace() = 0;

    /// The machine's memory and swap at this moment, in bytes.
    struct Machine {
        std::uint64_t memory = 0;
        std::uint64_t available_memory = 0;
        std::uint64_t swap = 0;
        std::uint64_t available_swap = 0;
    };
    virtual Machine MachineMemory() = 0;

    /// Bytes of address space that this process takes, and of the largest stretch that is free.
    /// Allocates nothing. @return false if that can't be found out.
    virtual bool AddressSpaceUse(std::uint64_t& used, std::uint64_t& largest_free) = 0;

    /// A stretch of address space that this process takes.
    struct Stretch {
        enum class Kind {
            OpenMapping, ///< what a mapping of CreateSharedMapping() and its kin takes by itself
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

    /// A walk over stretches.
    class Stretches
    {
    public:
        /// Takes one, in the order of addresses. Calls nothing of this class and allocates nothing.
        virtual void Take(const Stretch& stretch) = 0;

    protected:
        ~Stretches() = default;
    };

    /// Gives `stretches` all stretches of this process. Those of this library are told by what it
    /// made, not by their names. Allocates nothing. @return false if that can't be found out.
    virtual bool ListStretches(Stretches& stretches) = 0;

    /// How many stretches a process may have; 0 if no limit is known.
    virtual std::uint64_t MostStretches() = 0;

    /// A walk over views; see TrimWorkingSet().
    class Views
    {
    public:
        /// Gives the next view; false when there is none left.
        virtual bool Next(void*& view, std::uint64_t& size) = 0;

    protected:
        ~Views() = default;
    };

    /// Asks the system to take the resident pages of this process back. A system that trims
    /// single stretches trims those of `views`, which must be views of shared mappings; one that
    /// only trims whole processes need not read them. Mappings and contents stay.
    virtual bool TrimWorkingSet(Views& views) = 0;

    /// An allocation of this thread that has failed.
    struct FailedAllocation {
        std::size_t size; ///< what was asked for, in bytes; 0 if that can't be known
        bool reported;    ///< an earlier call for the same failure has said all there is to say
        std::uint64_t&
            mark; ///< the thread's own, 0 at first: what the handler left there last time
    };

    /// What a failed allocation asks for help. Returns not 0 for another try, or throws
    /// std::bad_alloc.
    using AllocationHandler = int (*)(const FailedAllocation& failed);

    /// Has `handler` called, from now on, whenever an allocation of this process fails, on the
    /// thread that failed and as long as it asks for another try. A failure inside the handler
    /// doesn't call it again. In force for `operator new`, in place of the handler that the host
    /// had installed, and, where MallocIsHooked(), for malloc and its kin, which answer null when
    /// the handler throws.
    virtual void OnAllocationFailure(AllocationHandler handler) = 0;

    /// Whether failures of malloc and its kin reach the handler in this process.
    virtual bool MallocIsHooked() = 0;

    // Folders and texts ---------------------------------------------------------------------

    /// Where temp files go if nobody says otherwise.
    virtual const char* DefaultTempFolder() = 0;

    /// Writes the path that `path` stands for while the current folder is the present one, cut to
    /// `size` bytes with its zero. @return false if that can't be told, or is longer.
    virtual bool AbsolutePath(const char* path, char* text, std::size_t size) = 0;

    /// A number that no other process can foresee.
    virtual std::uint64_t RandomNumber() = 0;

    /// What parts folders and names in a path.
    virtual char PathSeparator() = 0;

    /// Writes the system's name and version, cut to `size` bytes with its zero.
    virtual void SystemName(char* text, std::size_t size) = 0;

    /// Writes the name of this process's program in the same way.
    virtual void ProcessName(char* text, std::size_t size) = 0;

    /// Writes the local time and date in the C library's usual form of 24 characters, and a line
    /// end, in the same way. Once OnAllocationFailure() was called, it allocates nothing unless
    /// the host changes the time zone.
    virtual void TimeAndDate(char* text, std::size_t size) = 0;

    // The following three are for a plain file. A link isn't followed: whoever may write to the
    // folder could have it lead to a file of this user's. What isn't a plain file is a failure.
    // None waits for another process, and none allocates.

    /// Bytes of the file at `path`; -1 if it can't be opened.
    virtual long long FileLength(const char* path) = 0;

    /// Cuts the file at `path` to nothing. @return whether it was.
    virtual bool TruncateFile(const char* path) = 0;

    /// Adds `text` to the file at `path`, which is made if there is none. It arrives in one piece,
    /// whoever else adds to the file. @return false if it didn't, or not all of it.
    virtual bool AppendToFile(const char* path, const char* text, std::size_t size) = 0;

    /// Writes the calls that led here to standard error. Allocates nothing.
    virtual void StackTrace() = 0;

    /// Writes bytes to the process's standard error. Takes no lock of the C library and
    /// allocates nothing; a failure is ignored.
    virtual void WriteStandardError(const char* text, std::size_t size) = 0;

    // Inspection ----------------------------------------------------------------------------

    /// Where the names of mappings are seen; empty on a system that has no such folder.
    virtual const char* MappingFolder() = 0;

    /// What can be told of a path from outside.
    struct FileFacts {
        enum class Kind { Plain, Link, Folder, Other };
        enum class Mark { Held, Gone, Unknown };

        Kind kind = Kind::Other;
        std::uint64_t identity[2] = {}; ///< the same for all paths to one thing
        Mark mark = Mark::Unknown;      ///< whether the maker of a mapping's file still has it
        bool may_list = false;          ///< a folder
        bool is_lost = false;           ///< this user's own link to a mapping's file that is gone
        bool is_own = false;            ///< belongs to this process's user
        bool may_remove = false;
        std::uint64_t bytes = 0; ///< that it takes
        std::uint64_t age = 0;   ///< in seconds
        char owner[64] = "";     ///< the user's name, or number
        char target[4096] = "";  ///< of a link, where it may be one to a mapping's file; else empty
    };

    /// Fills `facts` with what bears the path itself. Nothing is changed, no link is followed and
    /// nothing but plain files opened, for reading. @return false if nothing is there.
    virtual bool Inspect(const char* path, FileFacts& facts) = 0;

    /// Writes the name of a process's program, cut to `size` bytes with its zero, if by its user
    /// it may be the maker of the file at `path`; else nothing.
    virtual void ProgramOf(const char* path, long process, char* text, std::size_t size) = 0;

    /// Removes a link to the file of a mapping if that file is gone.
    virtual bool RemoveLostLink(const char* path) = 0;

    /// What the library is to be ready for, in bytes.
    struct Demand {
        std::uint64_t shared_memory = 0;
        std::uint64_t files = 0;
        std::uint64_t file = 0;      ///< the size of each
        std::uint64_t free_disk = 0; ///< what files leave
        std::uint64_t region = 0;    ///< the least
        std::uint64_t views = 0;     ///< that are kept for later use
        const char* temp_folder = "";
        bool reclaims = true; ///< gives memory back when an allocation fails
    };

    /// A look at what the library depends on.
    struct Finding {
        enum class Verdict { Ok, Warning, Bad };

        Verdict verdict = Verdict::Ok;
        const char* subject = "";
        const char* value = "";
        const char* advice = "";
    };

    /// A walk over findings.
    class Findings
    {
    public:
        virtual void Take(const Finding& finding) = 0;

    protected:
        ~Findings() = default;
    };

    /// Holds the machine and this process's limits against `demand`, without changing anything.
    /// Throws what `findings` throws, and std::bad_alloc.
    virtual void Examine(const Demand& demand, Findings& findings) = 0;

protected:
    ~Platform() = default;
};

#endif
