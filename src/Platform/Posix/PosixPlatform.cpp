#include "Platform/Posix/PosixPlatform.h"

#include "Platform/Posix/AddressSpace.h"
#include "Platform/Posix/AllocationFailure.h"
#include "Platform/Posix/Diagnosis.h"
#include "Platform/Posix/Examination.h"
#include "Platform/Posix/Folder.h"
#include "Platform/Posix/Inspection.h"
#include "Platform/Posix/Limits.h"
#include "Platform/Posix/Liveness.h"
#include "Platform/Posix/MemoryLimits.h"
#include "Platform/Posix/Scoped.h"
#include "Platform/Posix/ThreadId.h"
#include "Platform/SystemPlatform.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>

#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace
{

/// Not errno itself, which successful calls of others may change before somebody asks. The model
/// keeps the first touch in a thread from allocating.
[[gnu::tls_model("initial-exec")]] constinit thread_local int last_error = 0;

/// Passes a result on and keeps the cause if it is a failure.
template <class Result>
Result told(Result result)
{
    if (!result) {
        last_error = errno;
        MeetLimitOf(last_error);
    }
    return result;
}

PosixPlatform& instance()
{
    alignas(PosixPlatform) static unsigned char room[sizeof(PosixPlatform)];
    static PosixPlatform* const made = new (room) PosixPlatform;
    return *made;
}

using MappingOwner = std::unique_ptr<SharedMapping>;

/// @return null with errno.
MappingOwner allocate()
{
    MappingOwner mapping(new (std::nothrow) SharedMapping);
    if (mapping == nullptr)
        errno = ENOMEM;
    return mapping;
}

/// What needs memory, done before the lock is taken. @return null with errno.
MappingOwner prepare(const char* name, std::uint64_t size)
{
    MappingOwner mapping = allocate();
    if (mapping == nullptr || !mapping->name.Prepare(SharedFolder, name))
        return nullptr;
    mapping->creator = getpid();
    mapping->size = size;
    return mapping;
}

/// A spare folder that can't be one is none.
bool prepare_spare(SharedMapping& mapping, const char* name, const char* spare_folder)
{
    return mapping.spare_name.Prepare(spare_folder, name) || errno != ENOMEM;
}

bool lies_in(const SharedMapping& mapping, std::uint64_t offset, std::uint64_t size)
{
    const bool lies = size != 0 && size <= mapping.size && offset <= mapping.size - size &&
                      offset % static_cast<std::uint64_t>(getpagesize()) == 0;
    if (!lies)
        errno = EINVAL;
    return lies;
}

bool has_process(long id)
{
    return id > 0 && id <= std::numeric_limits<pid_t>::max() &&
           (kill(static_cast<pid_t>(id), 0) == 0 || errno != ESRCH);
}

} // namespace

Platform& SystemPlatform()
{
    return instance();
}

PosixPlatform::PosixPlatform()
{
    pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child);
}

// Mappings ---------------------------------------------------------------------------------------

void* PosixPlatform::CreateSharedMapping(const char* name, std::uint64_t size,
                                         const char* spare_folder)
{
    ForgetLimits();
    MappingOwner mapping = prepare(name, size);
    if (!told(mapping != nullptr && prepare_spare(*mapping, name, spare_folder)))
        return nullptr;
    clean_up_at_exit();

    const std::lock_guard lock(m_mutex);
    return told(MakeInSharedMemory(*mapping, spare_folder)) ? handed_out(mapping) : nullptr;
}

void* PosixPlatform::CreateFileMapping(const char* path, const char* name, std::uint64_t size,
                                       FileFault* fault)
{
    ForgetLimits();
    MappingOwner mapping = prepare(name, size);
    *fault = FileFault::Mapping;
    if (!told(mapping != nullptr))
        return nullptr;
    clean_up_at_exit();

    const std::lock_guard lock(m_mutex);
    const Making outcome = MakeOverFile(*mapping, path);
    if (outcome == Making::NoFile)
        *fault = FileFault::File;
    if (!told(outcome == Making::Done))
        return nullptr;
    *fault = FileFault::None;
    return handed_out(mapping);
}

void* PosixPlatform::OpenMapping(const char* name, const char* spare_folder)
{
    ForgetLimits();
    MappingOwner mapping = allocate();
    const std::lock_guard lock(m_mutex);
    const bool opened =
        told(mapping != nullptr && OpenFile(name, spare_folder, mapping->file, mapping->size));
    return opened ? handed_out(mapping) : nullptr;
}

void* PosixPlatform::MapView(void* mapping, std::uint64_t offset, std::uint64_t size)
{
    ForgetLimits();
    const SharedMapping& shared = *static_cast<SharedMapping*>(mapping);
    return told(lies_in(shared, offset, size) ? shared.file.anchor.View(offset, size) : nullptr);
}

bool PosixPlatform::UnmapView(void* view, std::uint64_t size)
{
    return told(munmap(view, size) == 0);
}

bool PosixPlatform::CloseMapping(void* mapping)
{
    const MappingOwner shared(static_cast<SharedMapping*>(mapping));
    const std::lock_guard lock(m_mutex);
    delist(*shared);
    // The name goes first: it must not be seen without the creator's lock.
    const bool name_is_gone = told(RemoveOwnNames(*shared));
    return told(shared->file.anchor.Drop()) && name_is_gone;
}

bool PosixPlatform::RemoveDeadMapping(const char* folder, const char* name)
{
    Path path;
    const std::lock_guard lock(m_mutex);
    return told(path.Join(folder, name) && RemoveFileOrLinkIfDead(path.Text()));
}

/// From here on the mapping ends by CloseMapping().
void* PosixPlatform::handed_out(MappingOwner& mapping)
{
    mapping->next = m_mappings;
    if (mapping->next != nullptr)
        mapping->next->previous = mapping.get();
    m_mappings = mapping.get();
    return mapping.release();
}

void PosixPlatform::delist(SharedMapping& mapping)
{
    (mapping.previous != nullptr ? mapping.previous->next : m_mappings) = mapping.next;
    if (mapping.next != nullptr)
        mapping.next->previous = mapping.previous;
}

// Files ------------------------------------------------------------------------------------------

/// Read as a whole first: the lock is for the time of an open folder, and who takes a name may
/// come back here, or allocate.
void PosixPlatform::ListFiles(const char* folder, const char* prefix, Names& names)
{
    NameList list;
    do {
        if (!list.Grow())
            return;
        const std::lock_guard lock(m_mutex);
        ForEachName(folder, prefix, [&list](const char* name) { list.Add(name); });
    } while (!list.IsComplete());
    list.ForEach([&names](const char* name) { names.Take(name); });
}

void PosixPlatform::ListSome(const char* folder, const char* prefix, Place& place, Names& names)
{
    FewNames few;
    {
        const std::lock_guard lock(m_mutex);
        few.Read(folder, place.at, place.ended);
    }
    few.ForEach(prefix, [&names](const char* name) { names.Take(name); });
}

/// The lock on the file decides, not the id: another process may have that by now.
Platform::Maker PosixPlatform::MakerOf(const char* path, long process)
{
    const std::lock_guard lock(m_mutex);
    const ScopedFile file(OpenToRead(path));
    if (!file || CreatorLives(file.Get()))
        return Maker::Running;
    return has_process(process) ? Maker::Ended : Maker::Gone;
}

bool PosixPlatform::RemoveDeadFile(const char* path)
{
    const std::lock_guard lock(m_mutex);
    return told(RemoveIfDead(path));
}

bool PosixPlatform::RemoveFile(const char* path)
{
    return told(unlink(path) == 0);
}

bool PosixPlatform::FreeSpace(const char* folder, double* bytes)
{
    struct statvfs status;
    if (!told(statvfs(folder, &status) == 0))
        return false;
    *bytes = static_cast<double>(status.f_bavail) * static_cast<double>(status.f_frsize);
    return true;
}

// Exit and fork ----------------------------------------------------------------------------------

/// Asked for at each creation: a destructor may make a mapping after the clean-up has run.
void PosixPlatform::clean_up_at_exit()
{
    if (!m_cleans_up.exchange(true) && std::atexit(at_exit) != 0)
        m_cleans_up = false;
}

void PosixPlatform::at_exit()
{
    instance().remove_own_names();
}

void PosixPlatform::remove_own_names()
{
    m_cleans_up = false;
    const std::lock_guard lock(m_mutex);
    for (const SharedMapping* mapping = m_mappings; mapping != nullptr; mapping = mapping->next)
        RemoveOwnNames(*mapping);
}

/// A process id alone doesn't tell a child apart: in a namespace of its own it may be the same.
void PosixPlatform::disown_all()
{
    for (SharedMapping* mapping = m_mappings; mapping != nullptr; mapping = mapping->next)
        mapping->creator = 0;
}

void PosixPlatform::before_fork()
{
    RememberTimeZone();
    instance().m_mutex.lock();
}

void PosixPlatform::after_fork_in_parent()
{
    instance().m_mutex.unlock();
}

void PosixPlatform::after_fork_in_child()
{
    KeepTimeZone();
    instance().disown_all();
    instance().m_mutex.unlock();
}

bool PosixPlatform::OnFork(void (*prepare)(), void (*parent)(), void (*child)())
{
    return pthread_atfork(prepare, parent, child) == 0;
}

// Errors -----------------------------------------------------------------------------------------

unsigned long PosixPlatform::LastError()
{
    return static_cast<unsigned long>(last_error);
}

void PosixPlatform::ErrorText(unsigned long error, char* text, std::size_t size)
{
    char room[256];
    std::snprintf(text, size, "%s", strerror_r(static_cast<int>(error), room, sizeof room));
}

Platform::Cause PosixPlatform::LastCause()
{
    if (last_error == EEXIST || last_error == ESTALE) // or a cleaner has taken it meanwhile
        return Cause::NameExists;
    return IsForWantOfRoom(last_error) ? Cause::NoRoom : Cause::Other;
}

std::uint32_t PosixPlatform::LastLimits(char* text, std::size_t size)
{
    return TellLimits(text, size);
}

// Processes and threads --------------------------------------------------------------------------

long PosixPlatform::ProcessId()
{
    return getpid();
}

long PosixPlatform::ThreadId()
{
    return CurrentThreadId();
}

// Memory -----------------------------------------------------------------------------------------

std::uint32_t PosixPlatform::AllocationGranularity()
{
    return static_cast<std::uint32_t>(getpagesize());
}

std::uint64_t PosixPlatform::PhysicalMemory()
{
    return std::min(::MachineMemory(), ControlGroupLimit());
}

std::uint64_t PosixPlatform::CommittedMemory()
{
    return ReadCommitment().promised;
}

std::uint64_t PosixPlatform::AddressSpace()
{
    return AddressSpaceLimit();
}

Platform::Machine PosixPlatform::MachineMemory()
{
    const MachineNow now = ReadMachine();
    return {now.memory, now.available_memory, now.swap, now.available_swap};
}

bool PosixPlatform::AddressSpaceUse(std::uint64_t& used, std::uint64_t& largest_free)
{
    return ReadAddressSpace(AddressSpaceLimit(), used, largest_free);
}

bool PosixPlatform::ListStretches(Stretches& stretches)
{
    const std::lock_guard lock(m_mutex);
    return ListMaps(m_mappings, stretches);
}

std::uint64_t PosixPlatform::MostStretches()
{
    return MostMaps();
}

bool PosixPlatform::TrimWorkingSet(Views& views)
{
    bool all = true;
    void* view = nullptr;
    // The pages leave the process and stay in shared memory.
    for (std::uint64_t size = 0; views.Next(view, size);)
        all = told(madvise(view, size, MADV_DONTNEED) == 0) && all;
    return all;
}

void PosixPlatform::OnAllocationFailure(AllocationHandler handler)
{
    PrepareLastWords(); // for the time when that handler reports
    SetAllocationHandler(handler);
}

bool PosixPlatform::MallocIsHooked()
{
    return MallocComesByHere();
}

// Folders and texts ------------------------------------------------------------------------------

const char* PosixPlatform::DefaultTempFolder()
{
    return "/var/tmp";
}

bool PosixPlatform::AbsolutePath(const char* path, char* text, std::size_t size)
{
    Path absolute;
    return told(absolute.SetAbsolute(path) &&
                (std::strlen(absolute.Text()) < size || Fail(ENAMETOOLONG)) &&
                std::strcpy(text, absolute.Text()) != nullptr);
}

std::uint64_t PosixPlatform::RandomNumber()
{
    return UnforeseeableNumber();
}

char PosixPlatform::PathSeparator()
{
    return '/';
}

void PosixPlatform::SystemName(char* text, std::size_t size)
{
    WriteSystemName(text, size);
}

void PosixPlatform::ProcessName(char* text, std::size_t size)
{
    WriteProcessName(text, size);
}

void PosixPlatform::TimeAndDate(char* text, std::size_t size)
{
    WriteTimeAndDate(text, size);
}

long long PosixPlatform::FileLength(const char* path)
{
    const std::lock_guard lock(m_mutex);
    return LengthOfFile(path);
}

bool PosixPlatform::TruncateFile(const char* path)
{
    const std::lock_guard lock(m_mutex);
    return EmptyFile(path);
}

bool PosixPlatform::AppendToFile(const char* path, const char* text, std::size_t size)
{
    const std::lock_guard lock(m_mutex);
    return told(AddToFile(path, text, size));
}

void PosixPlatform::StackTrace()
{
    const KeepErrno keep;
    WriteStackTrace();
}

void PosixPlatform::WriteStandardError(const char* text, std::size_t size)
{
    const KeepErrno keep;
    const NoCancellation calm; // its callers let nothing out
    while (size != 0) {
        const ssize_t written = write(STDERR_FILENO, text, size);
        if (written == 0 || (written < 0 && errno != EINTR))
            return;
        const auto done = static_cast<std::size_t>(std::max<ssize_t>(written, 0));
        text += done;
        size -= done;
    }
}

// Inspection -------------------------------------------------------------------------------------

const char* PosixPlatform::MappingFolder()
{
    return SharedFolder;
}

bool PosixPlatform::Inspect(const char* path, FileFacts& facts)
{
    uid_t owner = 0;
    facts = {};
    if (const std::lock_guard lock(m_mutex); !told(ReadFacts(path, facts, owner)))
        return false;
    WriteUserName(owner, facts.owner, sizeof facts.owner); // it may allocate
    return true;
}

void PosixPlatform::ProgramOf(const char* path, long process, char* text, std::size_t size)
{
    WriteProgramOf(path, process, text, size);
}

bool PosixPlatform::RemoveLostLink(const char* path)
{
    return told(RemoveLinkIfLost(path));
}

void PosixPlatform::Examine(const Demand& demand, Findings& findings)
{
    ExamineMachine(demand, findings);
}
