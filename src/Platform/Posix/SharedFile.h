#ifndef PLATFORM_POSIX_SHAREDFILE_H
#define PLATFORM_POSIX_SHAREDFILE_H

#include "Platform/Posix/Anchor.h"

#include <cstddef>
#include <cstdint>

#include <sys/types.h>

/// Which file a name or a descriptor stands for. Unique while the file is open somewhere.
struct FileIdentity {
    dev_t device = 0;
    ino_t inode = 0;

    bool operator==(const FileIdentity&) const = default;
};

/// The path of a name in the folder of shared memory.
class SharedPath
{
public:
    static constexpr char Folder[] = "/dev/shm";

    /// @return false with errno if the name is empty, too long, has a separator or only dots.
    bool Set(const char* name);
    const char* Text() const { return m_text; }

private:
    static constexpr std::size_t longest_name = 255;
    char m_text[sizeof Folder + longest_name + 1] = "";
};

/// A new file in the folder of shared memory: named, readable by all, its memory reserved, and
/// with its creator's mark on it, a write lock of the open file that `anchor` holds.
struct SharedFile {
    SharedPath path;
    FileIdentity identity;
    Anchor anchor;
};

/// Makes the file of `file.path`, which must not exist, with `size` bytes of zeros.
/// @return false with errno, and with nothing left behind.
bool MakeSharedFile(SharedFile& file, std::uint64_t size);

/// Takes hold of the file of `file.path`, which another process may have made, for reading only.
/// A file whose memory isn't all there is refused: a touch of it could end this process.
/// @return false with errno, and with nothing held.
bool OpenSharedFile(SharedFile& file, std::uint64_t& size);

/// Takes the name away if it still stands for that file. Call it while the file is open, so that
/// no other can have its identity. @return false with errno if the name is still there.
bool RemoveName(const char* path, const FileIdentity& identity);

/// Removes the file if nobody holds it open who made it. @return true if it is gone by this.
bool RemoveIfDead(const char* path);

#endif
