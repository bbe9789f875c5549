#include "Platform/Posix/SharedFile.h"

#include "Platform/Posix/Descriptors.h"
#include "Platform/Posix/Limits.h"
#include "Platform/Posix/Liveness.h"
#include "Platform/Posix/Reserve.h"
#include "Platform/Posix/Scoped.h"

#include <cstdio>
#include <cstring>
#include <optional>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

constexpr mode_t private_mode = 0600;

// Making a file --------------------------------------------------------------------------------

/// Does everything for a new file but give it its name and let others read it, cheap steps first.
/// The memory is reserved before anybody can see the file.
bool furnish(int descriptor, const FileKind& kind, std::uint64_t size, SharedFile& file)
{
    return Identify(descriptor, file.identity) &&
           file.anchor.Hold(descriptor, Anchor::Rights::ReadAndWrite, kind.hold) &&
           Reserve(descriptor, size) && MarkAsLiving(descriptor) &&
           fchmod(descriptor, kind.mode) == 0;
}

/// A path that leads to an open file without a name.
struct DescriptorPath {
    explicit DescriptorPath(int descriptor)
    {
        // The thread's own: the first thread of a process can have ended.
        std::snprintf(text, sizeof text, "/proc/thread-self/fd/%d", descriptor);
    }
    char text[48];
};

int open_nameless(const char* path)
{
    Path folder;
    return folder.SetFolderOf(path)
               ? OpenDescriptor(folder.Text(), O_TMPFILE | O_RDWR, private_mode)
               : -1;
}

/// The name comes last: it never stands for something half made, and a kill leaves nothing.
/// @return none if it can't be done this way.
std::optional<Making> make_nameless_first(const char* path, const FileKind& kind,
                                          std::uint64_t size, SharedFile& file)
{
    const ScopedFile made(open_nameless(path));
    const DescriptorPath own(made.Get());
    if (!made || access(own.text, F_OK) != 0)
        return std::nullopt;
    if (!furnish(made.Get(), kind, size, file))
        return Making::NoMapping;
    if (linkat(AT_FDCWD, own.text, AT_FDCWD, path, AT_SYMLINK_FOLLOW) == 0)
        return Making::Done;
    if (errno == EEXIST)
        return Making::NoFile;
    file.anchor.Drop();
    return std::nullopt;
}

/// Marks a file that already has its name. A cleaner that saw it before the mark may take the name
/// away, but looks for the mark once more then and gives it back. So from here on the name stays,
/// if it still stands.
bool claim(int descriptor, const char* path)
{
    FileIdentity identity;
    return MarkAsLiving(descriptor) && Identify(descriptor, identity) &&
           (StandsFor(path, identity) || Fail(ESTALE));
}

/// Takes a name away again unless all went well.
class UnlinkOnExit
{
public:
    UnlinkOnExit(const char* path, int descriptor) : m_path(path), m_descriptor(descriptor) {}
    ~UnlinkOnExit()
    {
        const KeepErrno keep;
        FileIdentity identity;
        if (m_path != nullptr && Identify(m_descriptor, identity))
            RemoveName(m_path, identity);
    }
    UnlinkOnExit(const UnlinkOnExit&) = delete;
    UnlinkOnExit& operator=(const UnlinkOnExit&) = delete;

    void Dismiss() { m_path = nullptr; }

private:
    const char* m_path;
    const int m_descriptor;
};

Making make_named_first(const char* path, const FileKind& kind, std::uint64_t size,
                        SharedFile& file)
{
    const ScopedFile made(
        OpenDescriptor(path, O_CREAT | O_EXCL | O_RDWR | O_NOFOLLOW, private_mode));
    if (!made)
        return MeetNoNewFile(path), Making::NoFile;
    UnlinkOnExit undo(path, made.Get());
    if (!claim(made.Get(), path))
        return Making::NoFile;
    if (!furnish(made.Get(), kind, size, file))
        return Making::NoMapping;
    undo.Dismiss();
    return Making::Done;
}

Making make_somehow(const char* path, const FileKind& kind, std::uint64_t size, SharedFile& file)
{
    struct stat status;
    if (lstat(path, &status) == 0) { // before its size is reserved for nothing
        errno = EEXIST;
        return Making::NoFile;
    }
    const std::optional<Making> outcome = make_nameless_first(path, kind, size, file);
    return outcome ? *outcome : make_named_first(path, kind, size, file); // whose error counts
}

// Opening a file -------------------------------------------------------------------------------

/// Whose file is looked for, and how it is held.
struct Wanted {
    std::optional<uid_t> owner; ///< anybody's if there is none
    Anchor::By hold = Anchor::By::Page;
};

bool is_whole(const struct stat& status)
{
    constexpr off_t block_size = 512;
    return (S_ISREG(status.st_mode) && status.st_size != 0 &&
            status.st_blocks * block_size >= status.st_size) ||
           Fail(EINVAL);
}

bool open_plain(const char* path, const Wanted& wanted, SharedFile& file, std::uint64_t& size)
{
    struct stat status;
    const ScopedFile opened(OpenToRead(path));
    if (!opened || fstat(opened.Get(), &status) != 0 || !is_whole(status))
        return false;
    if (wanted.owner && *wanted.owner != status.st_uid)
        return Fail(EACCES);
    file.identity = {status.st_dev, status.st_ino};
    size = static_cast<std::uint64_t>(status.st_size);
    return file.anchor.Hold(opened.Get(), Anchor::Rights::Read, wanted.hold);
}

/// Only the user who owns the file can have meant the link.
bool open_linked(const char* link, uid_t owner, SharedFile& file, std::uint64_t& size)
{
    Path target;
    if (!target.ReadLink(link) || !BelongTogether(LastPart(link), target.Text()))
        return false;
    const bool bears_its_name = std::strcmp(LastPart(link), LastPart(target.Text())) == 0;
    const FileKind& kind = bears_its_name ? SpareFile : TempFile;
    return open_plain(target.Text(), {owner, kind.hold}, file, size);
}

bool open_spare(const char* name, const char* folder, SharedFile& file, std::uint64_t& size)
{
    Path path;
    return (path.Join(folder, name) || Fail(ENOENT)) &&
           open_plain(path.Text(), {geteuid()}, file, size);
}

} // namespace

Making MakeFile(const char* path, const FileKind& kind, std::uint64_t size, SharedFile& file)
{
    const Making outcome = make_somehow(path, kind, size, file);
    if (outcome != Making::Done) {
        const KeepErrno keep;
        file.anchor.Drop();
    }
    return outcome;
}

bool OpenFile(const char* name, const char* spare_folder, SharedFile& file, std::uint64_t& size)
{
    Path path;
    struct stat status;
    if (!path.Join(SharedFolder, name))
        return false;
    if (lstat(path.Text(), &status) != 0)
        return open_spare(name, spare_folder, file, size);
    if (S_ISLNK(status.st_mode))
        return open_linked(path.Text(), status.st_uid, file, size);
    return open_plain(path.Text(), {}, file, size);
}
