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
#include "Platform/Posix/WriteSignals.h"
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
    MappingOwner mapping = PrepareMapping(name, size);
    if (!told(mapping != nullptr && PrepareSpare(*mapping, name, spare_folder)))
        return nullptr;
    clean_up_at_exit();

    const WholeGuard lock(m_mutex);
    return told(MakeInSharedMemory(*mapping, spare_folder)) ? handed_out(mapping) : nullptr;
}

void* PosixPlatform::CreateMappingOverFile(const char* path, const char* name, std::uint64_t size,
                                           FileFault* fault)
{
    ForgetLimits();
    MappingOwner mapping = PrepareMapping(name, size);
    *fault = FileFault::Mapping;
    if (!told(mapping != nullptr))
        return nullptr;
    clean_up_at_exit();

    const WholeGuard lock(m_mutex);
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
    MappingOwner mapping = AllocateMapping();
    const WholeGuard lock(m_mutex);
    const bool opened =
        told(mapping != nullptr && OpenFile(name, spare_folder, mapping->file, mapping->size));
    return opened ? handed_out(mapping) : nullptr;
}

void* PosixPlatform::MapView(void* mapping, std::uint64_t offset, std::uint64_t size)
{
    const NoCancellation calm;
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
    auto* const shared = static_cast<SharedMapping*>(mapping);
    const WholeGuard lock(m_mutex);
    // The name goes first: it must not be seen without the creator's lock. One that won't go is
    // tried again at exit, and until then known as this process's by the page.
    if (!told(RemoveOwnNames(*shared)))
        return shared->file.anchor.DropDescriptor(), false;
    const MappingOwner owner(shared);
    delist(*shared);
    return told(shared->file.anchor.Drop());
}

bool PosixPlatform::RemoveDeadMapping(const char* folder, const char* name)
{
    Path path;
    const WholeGuard lock(m_mutex);
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
        const WholeGuard lock(m_mutex);
        ForEachName(folder, prefix, [&list](const char* name) { list.Add(name); });
    } while (!list.IsComplete());
    list.ForEach([&names](const char* name) { names.Take(name); });
}

void PosixPlatform::ListSome(const char* folder, const char* prefix, Place& place, Names& names)
{
    FewNames few;
    {
        const WholeGuard lock(m_mutex);
        few.Read(folder, place.at, place.ended);
    }
    few.ForEach(prefix, [&names](const char* name) { names.Take(name); });
}

/// The lock on the file decides, not the id: another process may have that by now.
Platform::Maker PosixPlatform::MakerOf(const char* path, long process)
{
    const WholeGuard lock(m_mutex);
    const ScopedFile file(OpenToRead(path));
    if (!file || CreatorLives(file.Get()))
        return Maker::Running;
    return has_process(process) ? Maker::Ended : Maker::Gone;
}

bool PosixPlatform::RemoveDeadFile(const char* path)
{
    const WholeGuard lock(m_mutex);
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
    const WholeGuard lock(m_mutex);
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
    const NoCancellation calm;
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

int PosixPlatform::HoldOffCancellation()
{
    int before = PTHREAD_CANCEL_ENABLE;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before);
    return before;
}

void PosixPlatform::RestoreCancellation(int before)
{
    pthread_setcancelstate(before, &before);
}

// Errors -----------------------------------------------------------------------------------------

unsigned long PosixPlatform::LastError()
{
    return static_cast<unsigned long>(last_error);
}

void PosixPlatform::ErrorText(unsigned long error, char* text, std::size_t size)
{
    const NoCancellation calm;
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
    const NoCancellation calm;
    return std::min(::MachineMemory(), ControlGroupLimit());
}

std::uint64_t PosixPlatform::CommittedMemory()
{
    const NoCancellation calm;
    return ReadCommitment().promised;
}

std::uint64_t PosixPlatform::AddressSpace()
{
    return AddressSpaceLimit();
}

Platform::Machine PosixPlatform::MachineMemory()
{
    const NoCancellation calm;
    const MachineNow now = ReadMachine();
    return {now.memory, now.available_memory, now.swap, now.available_swap};
}

bool PosixPlatform::AddressSpaceUse(std::uint64_t& used, std::uint64_t& largest_free)
{
    const NoCancellation calm;
    return ReadAddressSpace(AddressSpaceLimit(), used, largest_free);
}

bool PosixPlatform::ListStretches(Stretches& stretches)
{
    const WholeGuard lock(m_mutex);
    return ListMaps(m_mappings, stretches);
}

std::uint64_t PosixPlatform::MostStretches()
{
    const NoCancellation calm;
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
    const NoCancellation calm;
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
    const NoCancellation calm;
    WriteProcessName(text, size);
}

void PosixPlatform::TimeAndDate(char* text, std::size_t size)
{
    const NoCancellation calm;
    WriteTimeAndDate(text, size);
}

long long PosixPlatform::FileLength(const char* path)
{
    const WholeGuard lock(m_mutex);
    return LengthOfFile(path);
}

bool PosixPlatform::TruncateFile(const char* path)
{
    const WholeGuard lock(m_mutex);
    return EmptyFile(path);
}

bool PosixPlatform::AppendToFile(const char* path, const char* text, std::size_t size)
{
    const WholeGuard lock(m_mutex);
    return told(AddToFile(path, text, size));
}

void PosixPlatform::StackTrace()
{
    const KeepErrno keep;
    const NoCancellation calm;
    const NoWriteSignals quiet;
    WriteStackTrace();
}

void PosixPlatform::WriteStandardError(const char* text, std::size_t size)
{
    const KeepErrno keep;
    const NoCancellation calm;
    WriteAll(STDERR_FILENO, text, size);
}

// Inspection -------------------------------------------------------------------------------------

const char* PosixPlatform::MappingFolder()
{
    return SharedFolder;
}

bool PosixPlatform::Inspect(const char* path, FileFacts& facts)
{
    const NoCancellation calm;
    uid_t owner = 0;
    facts = {};
    if (const WholeGuard lock(m_mutex); !told(ReadFacts(path, facts, owner)))
        return false;
    WriteUserName(owner, facts.owner, sizeof facts.owner); // it may allocate
    return true;
}

void PosixPlatform::ProgramOf(const char* path, long process, char* text, std::size_t size)
{
    const NoCancellation calm;
    WriteProgramOf(path, process, text, size);
}

bool PosixPlatform::RemoveLostLink(const char* path)
{
    return told(RemoveLinkIfLost(path));
}

void PosixPlatform::Examine(const Demand& demand, Findings& findings)
{
    const NoCancellation calm;
    ExamineMachine(demand, findings);
}
