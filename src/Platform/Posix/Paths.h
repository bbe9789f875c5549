#ifndef PLATFORM_POSIX_PATHS_H
#define PLATFORM_POSIX_PATHS_H

#include <climits>
#include <cstdint>
#include <memory>

#include <sys/types.h>

/// Where the names of mappings are, on all but strange systems.
inline constexpr char SharedFolder[] = "/dev/shm";

/// Sets errno. @return false
bool Fail(int error);

/// Which file a name or a descriptor stands for. Unique while the file is open somewhere.
struct FileIdentity {
    dev_t device = 0;
    ino_t inode = 0;

    bool operator==(const FileIdentity&) const = default;
};

/// @return false with errno.
bool Identify(int file, FileIdentity& identity);

/// Whether the name is that of the file, or link, itself.
bool StandsFor(const char* path, const FileIdentity& identity);

/// Whether it is known that nothing bears that name.
bool IsMissing(const char* path);

/// Takes the name away if it still stands for that file or link. Call it while the file is open,
/// so that no other can have its identity. @return false with errno if the name is still there,
/// or that can't be known.
bool RemoveName(const char* path, const FileIdentity& identity);

/// The part of a path behind its last separator.
const char* LastPart(const char* path);

/// Whether a file of that path may be what a link of that name leads to: the beginning of the
/// name, up to its second "_", stands in the file's own name. False with errno.
bool BelongTogether(const char* name, const char* path);

/// A number that no other process can foresee.
std::uint64_t UnforeseeableNumber();

/// A path in a buffer of its own, on the stack: nothing is allocated where such paths are needed.
/// Each operation that sets it returns false with errno if it can't.
class Path
{
public:
    /// `folder` is absolute and may end in separators. `name` has no separator, 1 to 255 bytes,
    /// and not only dots.
    bool Join(const char* folder, const char* name);

    /// The same file from whatever folder is the current one.
    bool SetAbsolute(const char* path);

    /// `path`, which ends in "_" and a number, with another number in its place.
    bool SetWithNumber(const char* path, std::uint64_t number);

    /// The folder that `path` is in.
    bool SetFolderOf(const char* path);

    /// What a symbolic link tells. It isn't followed, and must be absolute.
    bool ReadLink(const char* link);

    const char* Text() const { return m_text; }

private:
    bool print(const char* format, ...) __attribute__((format(printf, 2, 3)));

    char m_text[PATH_MAX];
};

/// A name that this process gives to a file or a link, and takes away again.
struct OwnName {
    std::unique_ptr<char[]> path; ///< its text, none if the name is of no use
    FileIdentity identity;        ///< of what bears it; none as long as nothing does

    /// Sets the path aside: it is needed later, where nothing is allocated.
    /// @return false with errno.
    bool Prepare(const char* folder, const char* name);

    /// @return false with errno if the name is still there.
    bool Remove() const { return identity == FileIdentity{} || RemoveName(path.get(), identity); }
};

/// Makes `name` a symbolic link to `target`, an absolute path. @return false with errno.
bool MakeLink(OwnName& name, const char* target);

#endif
