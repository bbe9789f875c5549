#ifndef MEM_INSPECTION_H
#define MEM_INSPECTION_H

#include "mempager_export.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/// Looks at the machine from outside: what this library's processes, living or dead, have left
/// there, and whether there is room for more. The program `mempager` shows all of it.
///
/// No pager is made for it and nothing is allocated from one, so that a host can ask before it
/// uses the library, or without using it. Nothing on the machine changes but by Clean().
///
/// Other users may put anything in the way under names like the library's. Nothing but plain files
/// is opened, for reading; their links aren't followed; only what has a name of the library's form
/// is ever removed. Texts are bytes as the system has them, control characters and all: escape
/// them before you show them.
///
/// `temp_folder` is where to look for temp files; null or "" stands for the configured one, which
/// is the environment variable TEMP or the system's own choice unless the host has set another.
/// Only one such folder is looked at: a process with another one has its temp files there.
///
/// Threads: any, at any time; not while another thread configures the library. All operations
/// throw std::bad_alloc, with nothing left behind.
class MEMPAGER_EXPORT Mem_Inspection
{
public:
    /// What is found.
    enum class Kind {
        Region,      ///< of shared memory
        SpareRegion, ///< a region in the temp folder, where shared memory had no room for it
        TempFile,    ///< a file in the temp folder that regions are carved from
        LostLink,    ///< a link in shared memory whose file has gone
        Other,       ///< bears such a name, but isn't this library's
    };

    /// Whether the process that made it still has it. A lock on the file tells, not the process
    /// id: ids come again. A forked child that has inherited a piece keeps it alive, too.
    enum class State {
        Alive,   ///< somebody has it
        Dead,    ///< a leftover
        Unknown, ///< it can't be judged: another user's private file, or nothing of this library's
    };

    /// One thing that was found.
    struct Entry {
        Kind kind = Kind::Other;      ///< what it is
        State state = State::Unknown; ///< whether somebody still has it
        std::string path;             ///< of the file, with its folder
        std::string link;             ///< the path in shared memory that leads to it; empty if none
        std::uint64_t bytes = 0;      ///< of memory or disk that it takes
        long process = 0;             ///< its creator's id, by the name; 0 if there is none
        std::string program;     ///< the name of that process's program; empty unless it is alive
        std::string owner;       ///< the user, by name, or by number if there is no name
        bool is_own = false;     ///< whether that is this process's user
        bool may_remove = false; ///< whether this process's user has the right to
        std::uint64_t age = 0;   ///< seconds since it was made
    };

    /// What List() has found.
    struct Listing {
        std::vector<Entry> entries;       ///< by kind and process
        std::vector<std::string> folders; ///< that were looked at
        std::vector<std::string> unread;  ///< those that could not be
    };

    /// What there is at this moment.
    static Listing List(const char* temp_folder = nullptr);

    /// What became of a leftover.
    enum class Outcome {
        Removed, ///< in a trial: would be
        Gone,    ///< somebody else was faster
        Kept,    ///< it couldn't be removed
    };

    /// A leftover and what became of it.
    struct Removal {
        Entry leftover;                  ///< as it was found
        Outcome outcome = Outcome::Kept; ///< what became of it
        std::string reason;              ///< why it was kept; else empty
    };

    /// What Clean() has done.
    struct Cleaning {
        std::vector<Removal> removals;    ///< one for each leftover
        std::size_t unjudged = 0;         ///< private files of other users, which may be leftovers
        std::vector<std::string> folders; ///< that were looked at
        std::vector<std::string> unread;  ///< those that could not be
    };

    /// Removes what dead processes have left, and only that; each leftover is judged once more
    /// before it goes. `trial`: only tells what would be removed, and what could not.
    static Cleaning Clean(bool trial, const char* temp_folder = nullptr);

    /// How well the library can work.
    enum class Verdict {
        Ok,      ///< nothing stands in its way
        Warning, ///< the library works, but less well or for less data than it is configured for
        Bad,     ///< calls will fail
    };

    /// One thing that was examined.
    struct Finding {
        Verdict verdict = Verdict::Ok; ///< the judgement
        std::string subject;           ///< what was looked at
        std::string value;             ///< what was found
        std::string advice;            ///< what to do about it; empty where nothing needs doing
    };

    /// Holds the machine, and this process's limits, against the library's configuration as it
    /// stands.
    static std::vector<Finding> Examine(const char* temp_folder = nullptr);
};

#endif
