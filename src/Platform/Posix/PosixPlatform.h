#ifndef PLATFORM_POSIX_POSIXPLATFORM_H
#define PLATFORM_POSIX_POSIXPLATFORM_H

#include "Platform/Platform.h"
#include "Platform/Posix/SharedFile.h"

#include <atomic>
#include <mutex>

#include <sys/types.h>

/// What stands behind the handle of a shared mapping.
struct SharedMapping {
    SharedFile file;
    std::uint64_t size = 0;
    pid_t creator = 0; ///< 0 where the name is another process's business
    SharedMapping* previous = nullptr;
    SharedMapping* next = nullptr;
};

/// Linux. A mapping is a file in /dev/shm, held by an anchor instead of a descriptor. Each file
/// carries a lock that ends with its last holder, so leftovers of killed processes are known.
///
/// m_mutex guards the list of mappings and is held while a descriptor is open, so that no forked
/// child gets one. Under it nothing is allocated: a hook of a failing allocation may come back
/// here to make room.
class PosixPlatform final : public Platform
{
public:
    PosixPlatform();

    void* CreateSharedMapping(const char* name, std::uint64_t size) override;
    void* OpenMapping(const char* name) override;
    void* MapView(void* mapping, std::uint64_t offset, std::uint64_t size) override;
    bool UnmapView(void* view, std::uint64_t size) override;
    bool CloseMapping(void* mapping) override;
    int RemoveDeadMappings(const char* prefix) override;

    unsigned long LastError() override;
    void ErrorText(unsigned long error, char* text, std::size_t size) override;

    long ProcessId() override;
    long ThreadId() override;
    bool OnFork(void (*prepare)(), void (*parent)(), void (*child)()) override;

    std::uint32_t AllocationGranularity() override;
    std::uint64_t PhysicalMemory() override;
    std::uint64_t AddressSpace() override;
    bool TrimWorkingSet(Views& views) override;
    void OnAllocationFailure(AllocationHandler handler) override;
    bool MallocIsHooked() override;

    const char* DefaultTempFolder() override;
    char PathSeparator() override;
    void WriteStandardError(const char* text, std::size_t size) override;

private:
    static void before_fork();
    static void after_fork_in_parent();
    static void after_fork_in_child();
    static void at_exit();

    void clean_up_at_exit();
    void remove_own_names();
    void disown_all();
    void enlist(SharedMapping& mapping);
    void delist(SharedMapping& mapping);

    std::mutex m_mutex;
    SharedMapping* m_mappings = nullptr;
    std::atomic<bool> m_cleans_up = false; ///< at exit
};

#endif
