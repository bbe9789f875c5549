#ifndef PLATFORM_WINDOWS_INSPECTION_H
#define PLATFORM_WINDOWS_INSPECTION_H

#include "Platform/Inspection.h"

/// 64-bit Windows. What is told of limits stands in LimitFacts.cpp.
class WindowsInspection final : public Platform::Inspection
{
public:
    char PathSeparator() override;
    bool AbsolutePath(const char* path, char* text, std::size_t size) override;
    const char* DefaultTempFolder() override;
    const char* MappingFolder() override;
    bool FreeSpace(const char* folder, double* bytes) override;

    void ListFiles(const char* folder, const char* prefix,
                   Platform::Mappings::Names& names) override;
    bool Inspect(const char* path, FileFacts& facts) override;
    void ProgramOf(const char* path, long process, char* text, std::size_t size) override;
    bool RemoveLostLink(const char* path) override;

    bool ResidentBytes(Platform::Mappings::Views& views, std::uint64_t& bytes) override;

    std::vector<Fact> Look(const char* temp_folder) override;
};

#endif
