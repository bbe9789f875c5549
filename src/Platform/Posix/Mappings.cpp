#include "Platform/Posix/Mappings.h"

#include "Platform/LastError.h"
#include "Platform/Posix/Failure.h"
#include "Platform/Posix/Folder.h"
#include "Platform/Posix/Fork.h"
#include "Platform/Posix/Limits.h"
#include "Platform/Posix/Liveness.h"
#include "Platform/Posix/Populate.h"
#include "Platform/SystemPlatform.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <limits>

#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

namespace
{

bool lies_in(const SharedMapping& mapping, std::uint64_t offset, std::uint64_t size)
{
    const bool lies = size != 0 && size <= mapping.size && offset <= mapping.size - size &&
                      offset % static_cast<std::uint64_t>(getpagesize()) == 0;
    if (!lies)
        errno = EINVAL;
    return lies;
}

/// Whoever makes memory writes to its front next. So much is found there at once as adds less than
/// a tenth to the making: a page takes up to four times as long to be found and cleared as to be
/// reserved.
void find_first_pages(void* view, std::uint64_t size)
{
    constexpr std::uint64_t share = 64;
    constexpr std::uint64_t most = std::uint64_t{1} << 20; // more would count as used for nothing
    if (CanPopulate())
        Populate(view, std::min(size / share, most), Populating::ToWrite);
}

bool has_process(long id)
{
    return id > 0 && id <= std::numeric_limits<pid_t>::max() &&
           (kill(static_cast<pid_t>(id), 0) == 0 || errno != ESRCH);
}

} // namespace

Platform::Mappings& Platform::SystemMappings()
{
    return PosixMappings::Instance();
}

PosixMappings& PosixMappings::Instance()
{
    return OnlyOne<PosixMappings>();
}

void* PosixMappings::CreateSharedMapping(const char* name, std::uint64_t size,
                                         const char* spare_folder, bool* is_spare)
{
    ForgetLimits();
    MappingOwner mapping = PrepareMapping(name, size);
    if (!Reported(mapping != nullptr && PrepareSpare(*mapping, name, spare_folder)))
        return nullptr;
    clean_up_at_exit();

    const NoFork whole;
    if (!Reported(MakeInSharedMemory(*mapping, spare_folder)))
        return nullptr;
    if (is_spare != nullptr)
        *is_spare = mapping->IsSpare();
    return handed_out(mapping);
}

void* PosixMappings::CreateMappingOverFile(const char* path, const char* name, std::uint64_t size,
                                           FileFault* fault)
{
    ForgetLimits();
    MappingOwner mapping = PrepareMapping(name, size);
    *fault = FileFault::Mapping;
    if (!Reported(mapping != nullptr))
        return nullptr;
    clean_up_at_exit();

    const NoFork whole;
    const Making outcome = MakeOverFile(*mapping, path);
    if (outcome == Making::NoFile)
        *fault = FileFault::File;
    if (!Reported(outcome == Making::Done))
        return nullptr;
    *fault = FileFault::None;
    return handed_out(mapping);
}

void* PosixMappings::OpenMapping(const char* name, const char* spare_folder)
{
    ForgetLimits();
    MappingOwner mapping = AllocateMapping();
    const NoFork whole;
    const bool opened =
        Reported(mapping != nullptr && OpenFile(name, spare_folder, mapping->file, mapping->size));
    return opened ? handed_out(mapping) : nullptr;
}

/// From here on the mapping ends by CloseMapping().
void* PosixMappings::handed_out(MappingOwner& mapping)
{
    mapping->next = m_mappings;
    if (mapping->next != nullptr)
        mapping->next->previous = mapping.get();
    m_mappings = mapping.get();
    return mapping.release();
}

bool PosixMappings::CloseMapping(void* mapping)
{
    auto* const shared = static_cast<SharedMapping*>(mapping);
    const NoFork whole;
    // The name goes first: it must not be seen without the creator's lock. One that won't go is
    // tried again at exit, and until then known as this process's by the page.
    if (!Reported(RemoveOwnNames(*shared)))
        return shared->file.anchor.DropDescriptor(), false;
    const MappingOwner owner(shared);
    delist(*shared);
    return Reported(shared->file.anchor.Drop());
}

void PosixMappings::delist(SharedMapping& mapping)
{
    (mapping.previous != nullptr ? mapping.previous->next : m_mappings) = mapping.next;
    if (mapping.next != nullptr)
        mapping.next->previous = mapping.previous;
}

// Views ------------------------------------------------------------------------------------------

void* PosixMappings::MapView(void* mapping, std::uint64_t offset, std::uint64_t size)
{
    const NoCancellation calm;
    ForgetLimits();
    SharedMapping& shared = *static_cast<SharedMapping*>(mapping);
    void* const view =
        Reported(lies_in(shared, offset, size) ? shared.file.anchor.View(offset, size) : nullptr);
    if (view != nullptr && shared.is_untouched.exchange(false))
        find_first_pages(view, size);
    return view;
}

bool PosixMappings::UnmapView(void* view, std::uint64_t size)
{
    return Reported(munmap(view, size) == 0);
}

bool PosixMappings::Prefetch(void* bytes, std::uint64_t size, Access access)
{
    const NoCancellation calm;
    if (access == Access::Read && ReadsFindNeighbours())
        return Reported(Populate(bytes, size, Populating::Soon));
    if (!CanPopulate())
        return errno = EINVAL, Reported(false);
    const bool is_ready = access == Access::First || Populate(bytes, size, Populating::ToRead);
    return Reported(is_ready &&
                    (access == Access::Read || Populate(bytes, size, Populating::ToWrite)));
}

std::uint32_t PosixMappings::AllocationGranularity()
{
    return static_cast<std::uint32_t>(getpagesize());
}

bool PosixMappings::TrimWorkingSet(Views& views)
{
    bool all = true;
    void* view = nullptr;
    // The pages leave the process and stay in shared memory.
    for (std::uint64_t size = 0; views.Next(view, size);) {
        const std::uint64_t front =
            reinterpret_cast<std::uintptr_t>(view) % AllocationGranularity();
        void* const page = static_cast<char*>(view) - front;
        all = Reported(madvise(page, front + size, MADV_DONTNEED) == 0) && all;
    }
    return all;
}

Platform::Mappings::Cause PosixMappings::LastCause()
{
    const int error = static_cast<int>(Platform::LastError());
    if (error == EEXIST || error == ESTALE) // or a cleaner has taken it meanwhile
        return Cause::NameExists;
    return IsForLackOfSpace(error) ? Cause::Full : Cause::Other;
}

// Files, and what is left of them ----------------------------------------------------------------

bool PosixMappings::RemoveFile(const char* path)
{
    return Reported(unlink(path) == 0);
}

void PosixMappings::ListNames(const char* folder, const char* prefix, Place& place, Names& names)
{
    FewNames few;
    {
        const NoFork whole;
        few.Read(folder, place.at, place.ended);
    }
    few.ForEach(prefix, [&names](const char* name) { names.Take(name); });
}

/// The lock on the file decides, not the id: another process may have that by now.
Platform::Mappings::Creator PosixMappings::CreatorOf(const char* path, long process)
{
    const NoFork whole;
    const ScopedFile file(OpenToRead(path));
    if (!file || CreatorLives(file.Get()))
        return Creator::Running;
    return has_process(process) ? Creator::Ended : Creator::Gone;
}

bool PosixMappings::RemoveDeadFile(const char* path)
{
    const NoFork whole;
    return Reported(RemoveIfDead(path));
}

bool PosixMappings::RemoveDeadMapping(const char* folder, const char* name)
{
    Path path;
    const NoFork whole;
    return Reported(path.Join(folder, name) && RemoveFileOrLinkIfDead(path.Text()));
}

// Exit and fork ----------------------------------------------------------------------------------

/// Asked for at each creation: a destructor may make a mapping after the clean-up has run.
void PosixMappings::clean_up_at_exit()
{
    if (!m_cleans_up.exchange(true) && std::atexit(at_exit) != 0)
        m_cleans_up = false;
}

void PosixMappings::at_exit()
{
    Instance().remove_own_names();
}

void PosixMappings::remove_own_names()
{
    m_cleans_up = false;
    const NoFork whole;
    for (const SharedMapping* mapping = m_mappings; mapping != nullptr; mapping = mapping->next)
        RemoveOwnNames(*mapping);
}

/// A process id alone doesn't tell a child apart: in a namespace of its own it may be the same.
void PosixMappings::Disown()
{
    for (SharedMapping* mapping = m_mappings; mapping != nullptr; mapping = mapping->next)
        mapping->creator = 0;
}
