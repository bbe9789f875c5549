#include "Platform/Posix/PosixPlatform.h"

#include "Platform/Posix/AllocationFailure.h"
#include "Platform/Posix/MemoryLimits.h"
#include "Platform/Posix/Scoped.h"
#include "Platform/Posix/ThreadId.h"
#include "Platform/SystemPlatform.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
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
    if (!result)
        last_error = errno;
    return result;
}

PosixPlatform& instance()
{
    alignas(PosixPlatform) static unsigned char room[sizeof(PosixPlatform)];
    static PosixPlatform* const made = new (room) PosixPlatform;
    return *made;
}

bool exists(const SharedMapping* mapping)
{
    if (mapping == nullptr)
        errno = ENOMEM;
    return mapping != nullptr;
}

bool make(SharedMapping* mapping, const char* name, std::uint64_t size)
{
    if (!exists(mapping))
        return false;
    mapping->creator = getpid();
    mapping->size = size;
    return mapping->file.path.Set(name) && MakeSharedFile(mapping->file, size);
}

bool open_existing(SharedMapping* mapping, const char* name)
{
    return exists(mapping) && mapping->file.path.Set(name) &&
           OpenSharedFile(mapping->file, mapping->size);
}

bool lies_in(const SharedMapping& mapping, std::uint64_t offset, std::uint64_t size)
{
    const bool lies = size != 0 && size <= mapping.size && offset <= mapping.size - size &&
                      offset % static_cast<std::uint64_t>(getpagesize()) == 0;
    if (!lies)
        errno = EINVAL;
    return lies;
}

bool remove_own_name(const SharedMapping& mapping)
{
    return mapping.creator != getpid() ||
           RemoveName(mapping.file.path.Text(), mapping.file.identity);
}

/// Calls `visit` with the names in the folder of shared memory, allocating nothing.
template <class Visitor>
void for_each_name(Visitor visit)
{
    const ScopedFile folder(open(SharedPath::Folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    alignas(dirent64) char buffer[8192];
    for (ssize_t size; (size = getdents64(folder.Get(), buffer, sizeof buffer)) > 0;) {
        for (ssize_t at = 0; at < size;) {
            const auto* entry = reinterpret_cast<const dirent64*>(buffer + at);
            visit(entry->d_name);
            at += entry->d_reclen;
        }
    }
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

void* PosixPlatform::CreateSharedMapping(const char* name, std::uint64_t size)
{
    std::unique_ptr<SharedMapping> mapping(new (std::nothrow) SharedMapping);
    clean_up_at_exit();

    const std::lock_guard lock(m_mutex);
    if (!told(make(mapping.get(), name, size)))
        return nullptr;
    enlist(*mapping);
    return mapping.release();
}

void* PosixPlatform::OpenMapping(const char* name)
{
    std::unique_ptr<SharedMapping> mapping(new (std::nothrow) SharedMapping);
    const std::lock_guard lock(m_mutex);
    if (!told(open_existing(mapping.get(), name)))
        return nullptr;
    enlist(*mapping);
    return mapping.release();
}

void* PosixPlatform::MapView(void* mapping, std::uint64_t offset, std::uint64_t size)
{
    const SharedMapping& shared = *static_cast<SharedMapping*>(mapping);
    return told(lies_in(shared, offset, size) ? shared.file.anchor.View(offset, size) : nullptr);
}

bool PosixPlatform::UnmapView(void* view, std::uint64_t size)
{
    return told(munmap(view, size) == 0);
}

bool PosixPlatform::CloseMapping(void* mapping)
{
    const std::unique_ptr<SharedMapping> shared(static_cast<SharedMapping*>(mapping));
    const std::lock_guard lock(m_mutex);
    delist(*shared);
    // The name goes first: it must not be seen without the creator's lock.
    const bool name_is_gone = told(remove_own_name(*shared));
    return told(shared->file.anchor.Drop()) && name_is_gone;
}

int PosixPlatform::RemoveDeadMappings(const char* prefix)
{
    const std::lock_guard lock(m_mutex);
    const std::size_t length = std::strlen(prefix);
    int removed = 0;
    for_each_name([&](const char* name) {
        SharedPath path;
        if (std::strncmp(name, prefix, length) == 0 && path.Set(name) && RemoveIfDead(path.Text()))
            ++removed;
    });
    return removed;
}

void PosixPlatform::enlist(SharedMapping& mapping)
{
    mapping.next = m_mappings;
    if (mapping.next != nullptr)
        mapping.next->previous = &mapping;
    m_mappings = &mapping;
}

void PosixPlatform::delist(SharedMapping& mapping)
{
    (mapping.previous != nullptr ? mapping.previous->next : m_mappings) = mapping.next;
    if (mapping.next != nullptr)
        mapping.next->previous = mapping.previous;
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
        remove_own_name(*mapping);
}

/// A process id alone doesn't tell a child apart: in a namespace of its own it may be the same.
void PosixPlatform::disown_all()
{
    for (SharedMapping* mapping = m_mappings; mapping != nullptr; mapping = mapping->next)
        mapping->creator = 0;
}

void PosixPlatform::before_fork()
{
    instance().m_mutex.lock();
}

void PosixPlatform::after_fork_in_parent()
{
    instance().m_mutex.unlock();
}

void PosixPlatform::after_fork_in_child()
{
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
    return std::min(MachineMemory(), ControlGroupLimit());
}

std::uint64_t PosixPlatform::AddressSpace()
{
    return AddressSpaceLimit();
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

char PosixPlatform::PathSeparator()
{
    return '/';
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
