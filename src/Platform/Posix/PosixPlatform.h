#ifndef PLATFORM_POSIX_POSIXPLATFORM_H
#define PLATFORM_POSIX_POSIXPLATFORM_H

#include "Platform/Platform.h"
#include "Platform/Posix/SharedMapping.h"

#include <atomic>
#include <mutex>

/// Linux. A mapping is a file in /dev/shm, or one elsewhere with a link to it in /dev/shm. It is
/// held by an anchor, not by a descriptor, unless it is a temp file. Each file carries a lock that
/// ends with its last holder, so leftovers of killed processes are known.
///
/// m_mutex guards the list of mappings and is held while a descriptor is open, so that no forked
/// child gets one. Under it nothing is allocated: a hook of a failing allocation may come back
/// here to make room.
class PosixPlatform final : public Platform
{
public:
    PosixPlatform();

    void* CreateSharedMapping(const char* name, std::uint64_t size,
                              const char* spare_folder) override;
    void* CreateMappingOverFile(const char* path, const char* name, std::uint64_t size,
                                FileFault* fault) override;
    void* OpenMapping(const char* name, const char* spare_folder) override;
    void* MapView(void* mapping, std::uint64_t offset, std::uint64_t size) override;
    bool UnmapView(void* view, std::uint64_t size) override;
    bool CloseMapping(void* mapping) override;
    bool RemoveDeadMapping(const char* folder, const char* name) override;

    void ListFiles(const char* folder, const char* prefix, Names& names) override;
    void ListSome(const char* folder, const char* prefix, Place& place, Names& names) override;
    Maker MakerOf(const char* path, long process) override;
    bool RemoveDeadFile(const char* path) override;
    bool RemoveFile(const char* path) override;
    bool FreeSpace(const char* folder, double* bytes) override;

    unsigned long LastError() override;
    void ErrorText(unsigned long error, char* text, std::size_t size) override;
    Cause LastCause() override;
    std::uint32_t LastLimits(char* text, std::size_t size) override;

    long ProcessId() override;
    long ThreadId() override;
    int HoldOffCancellation() override;
    void RestoreCancellation(int before) override;
    bool OnFork(void (*prepare)(), void (*parent)(), void (*child)()) override;

    std::uint32_t AllocationGranularity() override;
    std::uint64_t PhysicalMemory() override;
    std::uint64_t CommittedMemory() override;
    std::uint64_t AddressSpace() override;
    Machine MachineMemory() override;
    bool AddressSpaceUse(std::uint64_t& used, std::uint64_t& largest_free) override;
    bool ListStretches(Stretches& stretches) override;
    std::uint64_t MostStretches() override;
    bool TrimWorkingSet(Views& views) override;
    void OnAllocationFailure(AllocationHandler handler) override;
    bool MallocIsHooked() override;

    const char* DefaultTempFolder() override;
    bool AbsolutePath(const char* path, char* text, std::size_t size) override;
    std::uint64_t RandomNumber() override;
    char PathSeparator() override;
    void SystemName(char* text, std::size_t size) override;
    void ProcessName(char* text, std::size_t size) override;
    void TimeAndDate(char* text, std::size_t size) override;
    long long FileLength(const char* path) override;
    bool TruncateFile(const char* path) override;
    bool AppendToFile(const char* path, const char* text, std::size_t size) override;
    void StackTrace() override;
    void WriteStandardError(const char* text, std::size_t size) override;

    const char* MappingFolder() override;
    bool Inspect(const char* path, FileFacts& facts) override;
    void ProgramOf(const char* path, long process, char* text, std::size_t size) override;
    bool RemoveLostLink(const char* path) override;
    void Examine(const Demand& demand, Findings& findings) override;

private:
    static void before_fork();
    static void after_fork_in_parent();
    static void after_fork_in_child();
    static void at_exit();

    void clean_up_at_exit();
    void remove_own_names();
    void disown_all();
    void* handed_out(MappingOwner& mapping);
    void delist(SharedMapping& mapping);

    std::mutex m_mutex;
    SharedMapping* m_mappings = nullptr;
    std::atomic<bool> m_cleans_up = false; ///< at exit
};

#endif
