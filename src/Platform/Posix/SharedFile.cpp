#include "Platform/Posix/SharedFile.h"

#include "Platform/Posix/Scoped.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <limits>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

constexpr std::uint64_t first_step = std::uint64_t{1} << 30;
constexpr std::uint64_t least_step = std::uint64_t{1} << 16;
constexpr mode_t private_mode = 0600;
constexpr mode_t readable_mode = 0644;

bool fail(int error)
{
    errno = error;
    return false;
}

// Memory ---------------------------------------------------------------------------------------

/// Past the limit the system would send a signal that ends the process.
bool check_file_limit(std::uint64_t size)
{
    rlimit limit{};
    if (getrlimit(RLIMIT_FSIZE, &limit) != 0)
        return false;
    const std::uint64_t largest = std::numeric_limits<off_t>::max();
    return size <= std::min<std::uint64_t>(limit.rlim_cur, largest) || fail(EFBIG);
}

bool write_zeros(int file, std::uint64_t size)
{
    static const char zeros[1 << 16] = {};
    for (std::uint64_t done = 0; done < size;) {
        const std::size_t step = std::min<std::uint64_t>(size - done, sizeof zeros);
        const ssize_t written = pwrite(file, zeros, step, static_cast<off_t>(done));
        if (written < 0 && errno != EINTR)
            return false;
        done += static_cast<std::uint64_t>(std::max<ssize_t>(written, 0));
    }
    return true;
}

/// A full file system is an error here; at a later touch it would be a SIGBUS.
bool reserve(int file, std::uint64_t size)
{
    std::uint64_t step = first_step;
    for (std::uint64_t done = 0; done < size;) {
        const std::uint64_t now = std::min(step, size - done);
        if (fallocate(file, 0, static_cast<off_t>(done), static_cast<off_t>(now)) == 0)
            done += now;
        else if (errno == EINTR)
            step = std::max(std::min(step, now) / 2, least_step); // the whole step was undone
        else
            return errno == EOPNOTSUPP && write_zeros(file, size);
    }
    return true;
}

// Identity and liveness ------------------------------------------------------------------------

bool identify(int file, FileIdentity& identity)
{
    struct stat status;
    if (fstat(file, &status) != 0)
        return false;
    identity = {status.st_dev, status.st_ino};
    return true;
}

bool stands_for(const char* path, const FileIdentity& identity)
{
    struct stat status;
    return lstat(path, &status) == 0 && FileIdentity{status.st_dev, status.st_ino} == identity;
}

/// The creator's mark. It ends with the last descriptor, anchor or view of this open file, so
/// also when the process is killed. Readers of the file can't take it.
bool mark_as_living(int file)
{
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return fcntl(file, F_OFD_SETLK, &lock) == 0;
}

/// What can't be judged counts as living.
bool creator_lives(int file)
{
    struct flock lock = {};
    lock.l_type = F_RDLCK;
    lock.l_whence = SEEK_SET;
    return fcntl(file, F_OFD_GETLK, &lock) != 0 || lock.l_type != F_UNLCK;
}

/// Opens a file that may be anybody's. Opening anything else than a plain file could do something.
int open_to_read(const char* path)
{
    struct stat status;
    if (lstat(path, &status) != 0)
        return -1;
    if (S_ISREG(status.st_mode))
        return open(path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
    errno = EINVAL;
    return -1;
}

// Making a file --------------------------------------------------------------------------------

enum class Outcome { made, failed, impossible };

/// All but the name and the readers. The order lets nothing be promised before it is there.
bool furnish(int descriptor, std::uint64_t size, SharedFile& file)
{
    return reserve(descriptor, size) && mark_as_living(descriptor) &&
           identify(descriptor, file.identity) && file.anchor.Hold(descriptor) &&
           fchmod(descriptor, readable_mode) == 0; // whatever the umask
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

/// The name comes last: it never stands for something half made, and a kill leaves nothing.
Outcome make_nameless_first(SharedFile& file, std::uint64_t size)
{
    const ScopedFile made(open(SharedPath::Folder, O_TMPFILE | O_RDWR | O_CLOEXEC, private_mode));
    const DescriptorPath own(made.Get());
    if (!made || access(own.text, F_OK) != 0)
        return Outcome::impossible;
    if (!furnish(made.Get(), size, file))
        return Outcome::failed;
    if (linkat(AT_FDCWD, own.text, AT_FDCWD, file.path.Text(), AT_SYMLINK_FOLLOW) == 0)
        return Outcome::made;

    const KeepErrno keep;
    file.anchor.Drop();
    return errno == EEXIST ? Outcome::failed : Outcome::impossible;
}

/// Marks a file that already has its name. A cleaner that saw it before the mark takes the name
/// away under flock, so the mark is made under flock too, and only counts if the name still
/// stands. The file is private until it is furnished: no other user can hold the flock.
bool claim(int descriptor, const char* path)
{
    FileIdentity identity;
    if (flock(descriptor, LOCK_EX | LOCK_NB) != 0)
        return fail(ESTALE);
    return mark_as_living(descriptor) && identify(descriptor, identity) &&
           (stands_for(path, identity) || fail(ESTALE)) && flock(descriptor, LOCK_UN) == 0;
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
        if (m_path != nullptr && identify(m_descriptor, identity))
            RemoveName(m_path, identity);
    }
    UnlinkOnExit(const UnlinkOnExit&) = delete;
    UnlinkOnExit& operator=(const UnlinkOnExit&) = delete;

    void Dismiss() { m_path = nullptr; }

private:
    const char* m_path;
    const int m_descriptor;
};

bool make_named_first(SharedFile& file, std::uint64_t size)
{
    const char* path = file.path.Text();
    const ScopedFile made(
        open(path, O_CREAT | O_EXCL | O_RDWR | O_NOFOLLOW | O_CLOEXEC, private_mode));
    if (!made)
        return false;
    UnlinkOnExit undo(path, made.Get());
    if (!claim(made.Get(), path) || !furnish(made.Get(), size, file))
        return false;
    undo.Dismiss();
    return true;
}

} // namespace

bool SharedPath::Set(const char* name)
{
    const std::size_t length = std::strlen(name);
    if (length > longest_name)
        return fail(ENAMETOOLONG);
    if (std::strspn(name, ".") == length || std::strchr(name, '/') != nullptr)
        return fail(EINVAL);
    std::snprintf(m_text, sizeof m_text, "%s/%s", Folder, name);
    return true;
}

bool MakeSharedFile(SharedFile& file, std::uint64_t size)
{
    if (!check_file_limit(size))
        return false;
    const Outcome outcome = make_nameless_first(file, size);
    if (outcome == Outcome::impossible)
        return make_named_first(file, size); // its own error is the one that counts
    return outcome == Outcome::made;
}

bool OpenSharedFile(SharedFile& file, std::uint64_t& size)
{
    struct stat status;
    const ScopedFile opened(open_to_read(file.path.Text()));
    if (!opened || fstat(opened.Get(), &status) != 0)
        return false;
    constexpr off_t block_size = 512;
    if (!S_ISREG(status.st_mode) || status.st_size == 0 ||
        status.st_blocks * block_size < status.st_size)
        return fail(EINVAL);
    file.identity = {status.st_dev, status.st_ino};
    size = static_cast<std::uint64_t>(status.st_size);
    return file.anchor.HoldForReading(opened.Get());
}

bool RemoveName(const char* path, const FileIdentity& identity)
{
    return !stands_for(path, identity) || unlink(path) == 0 || errno == ENOENT;
}

bool RemoveIfDead(const char* path)
{
    const ScopedFile file(open_to_read(path));
    if (!file || creator_lives(file.Get()) || flock(file.Get(), LOCK_EX | LOCK_NB) != 0)
        return false;

    // Under the flock no other cleaner takes the name away, so it can't go to a namesake between
    // this second look and the unlink.
    FileIdentity identity;
    return !creator_lives(file.Get()) && identify(file.Get(), identity) &&
           stands_for(path, identity) && unlink(path) == 0;
}
