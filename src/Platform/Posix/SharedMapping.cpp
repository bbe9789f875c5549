#include "Platform/Posix/SharedMapping.h"

#include "Platform/Posix/Reserve.h"
#include "Platform/Posix/Scoped.h"

#include <new>

#include <sys/stat.h>
#include <unistd.h>

namespace
{

bool is_barred(int error)
{
    return error == ENOENT || error == ENOTDIR || error == EROFS || error == EACCES ||
           error == EPERM;
}

bool make(OwnName& name, const FileKind& kind, SharedMapping& mapping)
{
    if (MakeFile(name.path.get(), kind, mapping.size, mapping.file) != Making::Done)
        return false;
    name.identity = mapping.file.identity;
    mapping.is_untouched = kind.is_memory;
    return true;
}

/// Where shared memory takes no link at all, openers look in their own spare folder.
bool link_if_possible(OwnName& name, const char* target, const FileIdentity& identity)
{
    if (MakeLink(name, target) || is_barred(errno) || errno == ENOSPC)
        return true;
    const KeepErrno keep;
    RemoveName(target, identity);
    return false;
}

bool make_in_spare_folder(SharedMapping& mapping)
{
    OwnName& name = mapping.spare_name;
    return make(name, SpareFile, mapping) &&
           link_if_possible(mapping.name, name.path.get(), name.identity);
}

/// An opener that finds no link looks there: both must be free.
bool is_taken(const OwnName& name)
{
    struct stat status;
    return name.path != nullptr && lstat(name.path.get(), &status) == 0;
}

} // namespace

bool IsForLackOfSpace(int error)
{
    return error == ENOSPC || error == EDQUOT || error == ENOMEM;
}

MappingOwner AllocateMapping()
{
    MappingOwner mapping(new (std::nothrow) SharedMapping);
    if (mapping == nullptr)
        errno = ENOMEM;
    return mapping;
}

MappingOwner PrepareMapping(const char* name, std::uint64_t size)
{
    MappingOwner mapping = AllocateMapping();
    if (mapping == nullptr || !mapping->name.Prepare(SharedFolder, name))
        return nullptr;
    mapping->creator = getpid();
    mapping->size = size;
    return mapping;
}

bool PrepareSpare(SharedMapping& mapping, const char* name, const char* spare_folder)
{
    return mapping.spare_name.Prepare(spare_folder, name) || errno != ENOMEM;
}

bool MakeInSharedMemory(SharedMapping& mapping, const char* spare_folder)
{
    if (is_taken(mapping.spare_name))
        return Fail(EEXIST);
    if (make(mapping.name, MemoryFile, mapping))
        return true;

    const int cause = errno;
    const bool may_go_elsewhere = IsForLackOfSpace(cause) || is_barred(cause);
    if (!may_go_elsewhere || mapping.spare_name.path == nullptr || !LiesOnDisk(spare_folder))
        return Fail(cause);
    if (make_in_spare_folder(mapping))
        return true;
    // Without a temp folder the first refusal is the cause; if both places are full, the second is.
    return Fail(is_barred(errno) ? cause : errno);
}

Making MakeOverFile(SharedMapping& mapping, const char* path)
{
    Path absolute;
    if (!absolute.SetAbsolute(path))
        return Making::NoFile;
    if (!BelongTogether(LastPart(mapping.name.path.get()), path))
        return Making::NoMapping; // it could never be opened by its name
    if (is_taken(mapping.name)) { // before a file is made for nothing
        errno = EEXIST;
        return Making::NoMapping;
    }
    const Making outcome = MakeFile(absolute.Text(), TempFile, mapping.size, mapping.file);
    if (outcome != Making::Done)
        return outcome;
    return link_if_possible(mapping.name, absolute.Text(), mapping.file.identity)
               ? Making::Done
               : Making::NoMapping;
}

bool RemoveOwnNames(const SharedMapping& mapping)
{
    if (mapping.creator != getpid())
        return true;
    const bool gone = mapping.name.Remove(); // a link first: it should never lead nowhere
    return mapping.spare_name.Remove() && gone;
}
