#ifndef PLATFORM_WINDOWS_MAPPINGS_H
#define PLATFORM_WINDOWS_MAPPINGS_H

#include "Platform/Mappings.h"

/// 64-bit Windows. A mapping is a section on the paging file, or over a file that its creator keeps
/// open without letting others remove it, which tells the living from the dead. The kernel takes
/// sections and their names away with their last holder, however that ends.
class WindowsMappings final : public Platform::Mappings
{
public:
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
};

#endif
