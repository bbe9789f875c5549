#ifndef PLATFORM_MAPPINGS_H
#define PLATFORM_MAPPINGS_H

#include "Platform/Serving.h"
#include "Platform/Subject.h"

#include <cstddef>
#include <cstdint>

namespace Platform
{

/// Mappings of memory and of files, their views, and what dead processes have left of them.
///
/// Rules for this interface and its two neighbours, Process and Inspection, which together are all
/// that the library needs of an operating system:
/// - Any thread may call any operation.
/// - No operation throws, but where it says so. A failure is reported by the result;
///   LastError() then gives the cause, on the same thread, until that thread's next failing
///   operation.
/// - Texts are zero-terminated byte strings and stay the caller's. Sizes and offsets are bytes.
/// - Handles and views belong to whoever asked for them and end only through CloseMapping() and
///   UnmapView(). These two, and whatever they call, allocate no memory.
/// - No operation is a point where a thread can be cancelled.
class Mappings : public Serving<Mappings>
{
public:
    /// Makes a named mapping of exactly `size` bytes (at least 1) backed by shared memory, all
    /// zeros. The memory is reserved before the call returns: touching a view of it later can't
    /// fail for want of memory. Any process of any user can open it by `name` for reading while
    /// the mapping is open; only this process can write to it.
    ///
    /// `name` has no separator and at most 255 bytes. A name that exists already is a failure,
    /// and what bears it is left alone.
    ///
    /// Where shared memory is full, or what memory is left to this process wouldn't bear it, the
    /// mapping lies in a file in `spare_folder` instead, if that is on a disk; only processes of
    /// the same user can open it then.
    ///
    /// @param is_spare becomes whether the mapping lies in such a file; may be null.
    /// @return a handle for MapView() and CloseMapping(); null on failure, with nothing left.
    virtual void* CreateSharedMapping(const char* name, std::uint64_t size,
                                      const char* spare_folder, bool* is_spare = nullptr) = 0;

    /// What of a mapping over a file could not be had.
    enum class FileFault { None, File, Mapping };

    /// Makes a new file of `size` bytes at `path`, private to this user, its disk space reserved,
    /// and a mapping of it that processes of the same user can open by `name` for reading, as
    /// above. A path or a name that exists already is a failure. The file belongs to the caller,
    /// who ends it with RemoveFile() after CloseMapping(). `path` and `name` are a pair of names as
    /// this library gives them to a file and to the mapping over it; a system may refuse others.
    ///
    /// @return a handle as above; null on failure, with nothing left and `*fault` telling of what.
    virtual void* CreateMappingOverFile(const char* path, const char* name, std::uint64_t size,
                                        FileFault* fault) = 0;

    /// Opens a mapping that another process, or this one, has made under `name`, for reading
    /// only: no view of it can be made writable. Any text may be given: what isn't the name of
    /// such a mapping, or no longer, is a failure and is not touched. `spare_folder` is where to
    /// look, too, for mappings that didn't fit into shared memory.
    /// The bytes stay for as long as the handle or a view of it, whatever the creator does.
    ///
    /// @return a handle for MapView() and CloseMapping(); null on failure.
    virtual void* OpenMapping(const char* name, const char* spare_folder) = 0;

    /// Ends this process's hold on a mapping and takes its name away, if this process made it.
    /// Views of it, here and in other processes, live on; the memory goes with the last of them.
    /// The handle is gone afterwards, also on failure.
    virtual bool CloseMapping(void* mapping) = 0;

    /// Maps the bytes [offset, offset + size) of an open mapping, readable and writable as the
    /// mapping is. `offset` is a multiple of AllocationGranularity(), and the bytes lie within
    /// the mapping, else that is a failure. Several views of one mapping can live at once. Works
    /// as well after somebody has removed the mapping's name.
    ///
    /// @return the view's first byte; null on failure (no address space, too many maps).
    virtual void* MapView(void* mapping, std::uint64_t offset, std::uint64_t size) = 0;

    /// Ends a view of `size` bytes that MapView() gave. The mapping and its bytes stay.
    /// @return false on failure; the view then still exists.
    virtual bool UnmapView(void* view, std::uint64_t size) = 0;

    /// What is about to be done with bytes of this process.
    enum class Access {
        Read, ///< of a view
        Write,
        First ///< to write to memory that nothing has been written to, of a view or not
    };

    /// Has the system find the pages of [bytes, bytes + size) now, in one call, instead of one by
    /// one at their first touch. The bytes lie in one view, or, for Access::First, in any memory of
    /// this process; they keep their values. Takes no memory that the touches wouldn't take.
    /// Allocates nothing.
    ///
    /// For Access::Read, a system on which one read finds many pages only brings what isn't in
    /// memory, and doesn't wait for it: the rest would take longer than the reads.
    ///
    /// No operation fails for want of it: the pages that aren't ready are found when they are
    /// touched. A system that has no such call does nothing; once that is known, at no cost.
    ///
    /// @return whether the pages are ready, or as near as the system takes them ahead.
    virtual bool Prefetch(void* bytes, std::uint64_t size, Access access) = 0;

    /// Offsets of views, and the addresses that views get, are multiples of this.
    virtual std::uint32_t AllocationGranularity() = 0;

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
    /// single views trims those of `views`, which must be views of shared mappings, or stretches of
    /// such: each page that they touch. One that only trims whole processes need not read them.
    /// Mappings and contents stay.
    virtual bool TrimWorkingSet(Views& views) = 0;

    // Huge pages ----------------------------------------------------------------------------
    // Where the system offers them, mappings of shared memory are made of such pages by themselves.

    /// Views that are meant.
    class ViewSet
    {
    public:
        /// Whether the view that begins there is one of them. Calls nothing of the platform.
        virtual bool Has(const void* view) const = 0;

    protected:
        ~ViewSet() = default;
    };

    /// Bytes of `views`, views of mappings, that huge pages map at this moment; 0 where the system
    /// doesn't tell. It is asked about all views, so that this takes time, but where no mapping
    /// could be made of such pages. Allocates nothing.
    virtual std::uint64_t HugeBytes(const ViewSet& views) = 0;

    /// Has private memory of this process use huge pages when it is touched, if it is large and
    /// there is that much memory left; else does nothing. It keeps its values. Allocates nothing.
    virtual void PreferHugePages(void* memory, std::uint64_t size) = 0;

    // What stands in the way ----------------------------------------------------------------

    /// What the cause of this thread's last failure comes to for a mapping or a file that was to
    /// be made.
    enum class Cause {
        NameExists, ///< another name will do
        Full,       ///< memory or disk: it helps if somebody else takes less
        Other
    };
    virtual Cause LastCause() = 0;

    /// The limits that an operation met, and the numbers of the first.
    struct LimitsMet {
        std::uint32_t set = 0; ///< a bit for each Subject; 0 if no limit is known
        Subject first = Subject::SharedMemory;
        std::uint64_t most = 0; ///< bytes, or how many
        std::uint64_t left = 0; ///< of these, before the operation
    };

    /// Which limits stood in the way of this thread's last failing operation on a mapping or view.
    /// Writes their names and numbers into `text`, cut to `size` bytes with its zero.
    virtual LimitsMet LastLimits(char* text, std::size_t size) = 0;

    // Files, and what is left of them -------------------------------------------------------

    /// Removes a file that this process made with CreateMappingOverFile().
    virtual bool RemoveFile(const char* path) = 0;

    /// A walk over the names of a folder.
    class Names
    {
    public:
        /// Takes one name, without the folder.
        virtual void Take(const char* name) = 0;

    protected:
        ~Names() = default;
    };

    /// Where a walk in steps goes on; at the beginning until it is moved on.
    struct Place {
        std::int64_t at = 0; ///< the system's word for it
        bool ended = false;
    };

    /// Gives `names` a few of the entries of `folder` whose names begin with `prefix`, from `place`
    /// on, which is moved behind them; to the end for a folder that ends or can't be read. What
    /// comes or goes between two steps can be given twice or be left out; nothing else is left out
    /// if a step in which something was removed is made again from where it began. Allocates
    /// nothing.
    virtual void ListNames(const char* folder, const char* prefix, Place& place, Names& names) = 0;

    /// What is known of a process that made a file.
    enum class Creator { Gone, Ended, Running };

    /// Whether the creator of the file at `path`, a process whose id was `process`, still has it:
    /// Gone if no process has that id, Ended if one has but it isn't the creator or runs no more.
    virtual Creator CreatorOf(const char* path, long process) = 0;

    /// Removes a file of this library's whose creator isn't running. One that is in use stays.
    /// Allocates nothing.
    virtual bool RemoveDeadFile(const char* path) = 0;

    /// Removes what bears `name` in `folder`, which is Inspection::MappingFolder() or a spare
    /// folder, if it is a mapping whose creator has ended without closing it, or only a link that
    /// is left of one. Mappings of living processes, and anything that can't be judged, stay, and
    /// nobody who can only read it keeps a dead one. Allocates nothing.
    /// @return whether it is gone by this.
    virtual bool RemoveDeadMapping(const char* folder, const char* name) = 0;

protected:
    ~Mappings() = default;
};

} // namespace Platform

#endif
