#include "Platform/Posix/Liveness.h"

#include "Platform/Posix/Descriptors.h"
#include "Platform/Posix/Paths.h"
#include "Platform/Posix/Scoped.h"

#include <cstdio>
#include <cstring>

#include <fcntl.h>
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

/// Renames without replacing anything. Where the file system doesn't know the flag, a plain rename
/// will do: nobody can have taken a name that nobody can foresee.
bool put_aside(const char* path, const char* aside)
{
    return renameat2(AT_FDCWD, path, AT_FDCWD, aside, RENAME_NOREPLACE) == 0 ||
           (errno == EINVAL && rename(path, aside) == 0);
}

/// Never takes the place of what has come to bear the name meanwhile.
bool put_back(const char* aside, const char* path)
{
    return renameat2(AT_FDCWD, aside, AT_FDCWD, path, RENAME_NOREPLACE) == 0 ||
           (errno == EINVAL && link(aside, path) == 0 && unlink(aside) == 0);
}

/// Removes what bears the name if `is_left(path)` says that it is a leftover; that is asked again
/// after it was renamed.
template <class Judge>
bool remove_if(const char* path, Judge is_left)
{
    Path aside;
    if (!is_left(path) || !aside.SetWithNumber(path, UnforeseeableNumber() >> 1) ||
        !put_aside(path, aside.Text()))
        return false;
    if (is_left(aside.Text()))
        return unlink(aside.Text()) == 0;
    const KeepErrno keep;
    put_back(aside.Text(), path);
    return false;
}

/// A file that may be dead.
class MadeFile
{
public:
    explicit MadeFile(const char* path) : m_file(OpenToRead(path)) {}

    bool RemoveIfDead(const char* path) const
    {
        FileIdentity identity;
        return m_file && Identify(m_file.Get(), identity) && remove_if(path, [&](const char* now) {
                   return (!CreatorLives(m_file.Get()) || Fail(EBUSY)) &&
                          (StandsFor(now, identity) || Fail(ENOENT));
               });
    }

    bool BelongsTo(uid_t user) const
    {
        struct stat status;
        return m_file && fstat(m_file.Get(), &status) == 0 && status.st_uid == user;
    }

private:
    const ScopedFile m_file;
};

/// A link that may lead to a mapping's file.
struct LinkToFile {
    bool Read(const char* path)
    {
        struct stat status;
        if (lstat(path, &status) != 0 || !target.ReadLink(path))
            return false;
        owner = status.st_uid;
        return BelongTogether(LastPart(path), target.Text());
    }

    uid_t owner = 0;
    Path target;
};

/// A link whose file has another name waits until that is gone.
bool remove_link_and_namesake(const char* path)
{
    LinkToFile link;
    if (!link.Read(path) || link.owner != geteuid())
        return false;
    const char* const target = link.target.Text();
    if (std::strcmp(LastPart(path), LastPart(target)) == 0) {
        const MadeFile file(target);
        if (file.BelongsTo(link.owner))
            file.RemoveIfDead(target);
    }
    return RemoveLinkIfLost(path);
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
    return MadeFile(path).RemoveIfDead(path);
}

/// Most of what is met here may be what others have put in the way: one look tells.
bool RemoveFileOrLinkIfDead(const char* path)
{
    struct stat status;
    if (lstat(path, &status) != 0)
        return false;
    if (S_ISREG(status.st_mode))
        return RemoveIfDead(path);
    return S_ISLNK(status.st_mode) && status.st_uid == geteuid() ? remove_link_and_namesake(path)
                                                                 : Fail(EPERM);
}

bool RemoveLinkIfLost(const char* path)
{
    return remove_if(path, [](const char* now) {
        LinkToFile link;
        return link.Read(now) && (IsMissing(link.target.Text()) || Fail(EBUSY));
    });
}
