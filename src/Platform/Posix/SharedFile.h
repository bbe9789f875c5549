#ifndef PLATFORM_POSIX_SHAREDFILE_H
#define PLATFORM_POSIX_SHAREDFILE_H

#include "Platform/Posix/Anchor.h"
#include "Platform/Posix/Paths.h"

#include <cstdint>

#include <sys/types.h>

/// A file that backs a mapping, held by this process.
struct SharedFile {
    FileIdentity identity;
    Anchor anchor;
};

/// How such a file is made.
struct FileKind {
    mode_t mode; ///< whatever the umask
    Anchor::By hold;
    bool is_memory = false;
};

/// In the folder of shared memory; what lies on a disk in its place; a temp file.
inline constexpr FileKind MemoryFile{0644, Anchor::By::Page, true};
inline constexpr FileKind SpareFile{0600, Anchor::By::Page};
inline constexpr FileKind TempFile{0600, Anchor::By::Descriptor};

enum class Making { Done, NoFile, NoMapping };

/// Makes the file of `path`, which must not exist, with `size` bytes of zeros: reserved, and with
/// its creator's mark on it. @return what failed, with errno, and with nothing left behind.
Making MakeFile(const char* path, const FileKind& kind, std::uint64_t size, SharedFile& file);

/// Takes hold of the file that another process, or this one, has made for the mapping `name`, for
/// reading only. Looked for in the folder of shared memory, there also by a link, and then in
/// `spare_folder`.
/// A file whose memory isn't all there is refused: a touch of it could end this process.
/// @return false with errno, and with nothing held.
bool OpenFile(const char* name, const char* spare_folder, SharedFile& file, std::uint64_t& size);

#endif
