#ifndef PLATFORM_INSPECTION_H
#define PLATFORM_INSPECTION_H

#include "Platform/Mappings.h"
#include "Platform/Serving.h"
#include "Platform/Subject.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Platform
{

/// Facts on files and folders, and on what this process may use, without a judgement. The rules of
/// Mappings hold.
class Inspection : public Serving<Inspection>
{
public:
    /// What parts folders and names in a path.
    virtual char PathSeparator() = 0;

    /// Writes the path that `path` stands for while the current folder is the present one, cut to
    /// `size` bytes with its zero. @return false if that can't be told, or is longer.
    virtual bool AbsolutePath(const char* path, char* text, std::size_t size) = 0;

    /// Where temp files go if nobody says otherwise.
    virtual const char* DefaultTempFolder() = 0;

    /// Where the names of mappings are seen; empty on a system that has no such folder.
    virtual const char* MappingFolder() = 0;

    /// Free bytes, for this user, on the disk that holds `folder`. @return false on failure.
    virtual bool FreeSpace(const char* folder, double* bytes) = 0;

    /// Gives `names` each entry of `folder` whose name begins with `prefix`, as they were at one
    /// time. None for a folder that can't be read.
    virtual void ListFiles(const char* folder, const char* prefix, Mappings::Names& names) = 0;

    /// What can be told of a path from outside.
    struct FileFacts {
        enum class Kind { Plain, Link, Folder, Other };
        enum class Mark { Held, Gone, Unknown };

        Kind kind = Kind::Other;
        std::uint64_t identity[2] = {}; ///< the same for all paths to one thing
        Mark mark = Mark::Unknown;      ///< whether the creator of a mapping's file still has it
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
    /// it may be the creator of the file at `path`; else nothing.
    virtual void ProgramOf(const char* path, long process, char* text, std::size_t size) = 0;

    /// Removes a link to the file of a mapping if that file is gone.
    virtual bool RemoveLostLink(const char* path) = 0;

    /// Tells how many bytes of the views are in physical memory as this process's: pages that it
    /// has touched and the system hasn't taken back since. Allocates nothing.
    /// @return false if that can't be found out.
    virtual bool ResidentBytes(Mappings::Views& views, std::uint64_t& bytes) = 0;

    /// What is found about one subject at this moment.
    struct Fact {
        enum class State {
            Usable,   ///< as far as its numbers go
            Doubtful, ///< it will do, but less well
            Unusable
        };
        Subject subject = Subject::SharedMemory;
        const char* name = "";        ///< for people
        State state = State::Usable;  ///< by itself, however much is wanted of it
        bool is_bounded = false;      ///< whether there are numbers
        std::uint64_t most = 0;       ///< bytes, or how many
        std::uint64_t left = 0;       ///< of these
        std::uint64_t least = 0;      ///< how many are needed at any time, whatever is made
        std::uint64_t for_region = 0; ///< how many each region takes
        std::string value;            ///< what was found, in words
        std::string cure; ///< what the system has against it, if anything; each "{}" stands for how
                          ///< much `most` should be, where that is bytes in MB
    };

    /// Looks at each subject that this system has, with `temp_folder` for temp files, and changes
    /// nothing. Throws std::bad_alloc.
    virtual std::vector<Fact> Look(const char* temp_folder) = 0;

protected:
    ~Inspection() = default;
};

} // namespace Platform

#endif
