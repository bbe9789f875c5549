#include "Platform/Posix/Liveness.h"

#include "Platform/Posix/Descriptors.h"
#include "Platform/Posix/Paths.h"
#include "Platform/Posix/Scoped.h"

#include <cstring>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

struct flock whole_file(short type)
{
    struct flock lock = {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    return lock;
}

/// A file whose creator is gone, kept from other cleaners while this object lives: none of them
/// takes a name of it away, so that a name can't go to a namesake between a look and its removal.
class DeadFile
{
public:
    explicit DeadFile(const char* path) : m_path(path), m_file(OpenToRead(path)) {}

    /// Looks twice: the file may have been dead and gone already when the lock was had.
    /// @return false with errno.
    bool Claim()
    {
        return m_file && is_left() && flock(m_file.Get(), LOCK_EX | LOCK_NB) == 0 && is_left() &&
               Identify(m_file.Get(), m_identity) &&
               (StandsFor(m_path, m_identity) || Fail(ENOENT));
    }

    bool BelongsTo(uid_t user) const
    {
        struct stat status;
        return fstat(m_file.Get(), &status) == 0 && status.st_uid == user;
    }

    bool Remove() const { return unlink(m_path) == 0; }

private:
    bool is_left() const { return !CreatorLives(m_file.Get()) || Fail(EBUSY); }

    const char* const m_path;
    const ScopedFile m_file;
    FileIdentity m_identity;
};

/// A link that may lead to a mapping's file.
struct LinkToFile {
    bool Read(const char* path)
    {
        struct stat status;
        if (lstat(path, &status) != 0 || !target.ReadLink(path))
            return false;
        identity = {status.st_dev, status.st_ino};
        owner = status.st_uid;
        return BelongTogether(LastPart(path), target.Text());
    }

    FileIdentity identity;
    uid_t owner = 0;
    Path target;
};

bool remove_link_and_file(const char* link, const FileIdentity& identity, const char* target,
                          uid_t user)
{
    DeadFile file(target);
    if (!file.Claim() || !file.BelongsTo(user))
        return false;
    const bool bears_its_name = std::strcmp(LastPart(link), LastPart(target)) == 0;
    return RemoveName(link, identity) && (!bears_its_name || file.Remove());
}

} // namespace

bool MarkAsLiving(int file)
{
    struct flock lock = whole_file(F_WRLCK);
    return fcntl(file, F_OFD_SETLK, &lock) == 0;
}

bool CreatorLives(int file)
{
    struct flock lock = whole_file(F_RDLCK);
    return fcntl(file, F_OFD_GETLK, &lock) != 0 || lock.l_type != F_UNLCK;
}

int OpenToRead(const char* path)
{
    struct stat status;
    if (lstat(path, &status) != 0)
        return -1;
    if (S_ISREG(status.st_mode)) // opening anything else could do something
        return OpenDescriptor(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
    errno = EINVAL;
    return -1;
}

bool RemoveIfDead(const char* path)
{
    DeadFile file(path);
    return file.Claim() && file.Remove();
}

bool RemoveLinkIfDead(const char* path)
{
    LinkToFile link;
    if (!link.Read(path) || link.owner != geteuid())
        return false;
    if (IsMissing(link.target.Text()))
        return RemoveName(path, link.identity);
    return remove_link_and_file(path, link.identity, link.target.Text(), link.owner);
}

bool RemoveLinkIfLost(const char* path)
{
    LinkToFile link;
    return link.Read(path) && IsMissing(link.target.Text()) && RemoveName(path, link.identity);
}
