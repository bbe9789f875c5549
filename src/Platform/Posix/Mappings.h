#ifndef PLATFORM_POSIX_MAPPINGS_H
#define PLATFORM_POSIX_MAPPINGS_H

#include "Platform/Mappings.h"
#include "Platform/Posix/SharedMapping.h"

#include <atomic>

/// Linux. A mapping is a file in /dev/shm, or one elsewhere with a link to it in /dev/shm. It is
/// held by an anchor, not by a descriptor, unless it is a temp file. Each file carries a lock that
/// ends with its last holder, so leftovers of killed processes are known.
class PosixMappings final : public Platform::Mappings
{
public:
    static PosixMappings& Instance();

    /// The first of all mappings, which are a list; under DescriptorsMutex.
    SharedMapping* First() { return m_mappings; }

    /// Leaves the names of all mappings to the parent of this forked child; under that mutex.
    void Disown();

    void* CreateSharedMapping(const char* name, std::uint64_t size, const char* spare_folder,
                              bool* is_spare) override;
    void* CreateMappingOverFile(const char* path, const char* name, std::uint64_t size,
                                FileFault* fault) override;
    void* OpenMapping(const char* name, const char* spare_folder) override;
    bool CloseMapping(void* mapping) override;
    void* MapView(void* mapping, std::uint64_t offset, std::uint64_t size) override;
    bool UnmapView(void* view, std::uint64_t size) override;
    bool Prefetch(void* bytes, std::uint64_t size, Access access) override;
    std::uint32_t AllocationGranularity() override;
    bool TrimWorkingSet(Views& views) override;

    std::uint64_t HugeBytes(const ViewSet& views) override;
    void PreferHugePages(void* memory, std::uint64_t size) override;

    Cause LastCause() override;
    LimitsMet LastLimits(char* text, std::size_t size) override;

    bool RemoveFile(const char* path) override;
    void ListNames(const char* folder, const char* prefix, Place& place, Names& names) override;
    Creator CreatorOf(const char* path, long process) override;
    bool RemoveDeadFile(const char* path) override;
    bool RemoveDeadMapping(const char* folder, const char* name) override;

private:
    static void at_exit();

    void clean_up_at_exit();
    void remove_own_names();
    void* handed_out(MappingOwner& mapping);
    void delist(SharedMapping& mapping);

    SharedMapping* m_mappings = nullptr;
    std::atomic<bool> m_cleans_up = false; ///< at exit
};

#endif
