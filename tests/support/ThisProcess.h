#ifndef SUPPORT_THISPROCESS_H
#define SUPPORT_THISPROCESS_H

#include "Platform/Inspection.h"
#include "Platform/Process.h"

#include <filesystem>
#include <string>

inline long OwnId()
{
    return Platform::Process::Get().ProcessId();
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool is_sanitized = true;
#else
inline constexpr bool is_sanitized = false;
#endif

/// Whether a file can't be removed as long as somebody has a view of it.
#if defined(_WIN32)
inline constexpr bool mapped_files_stay = true;
#else
inline constexpr bool mapped_files_stay = false;
#endif

/// Whether a mapping is seen by its name in a folder, and stays there after its maker was killed; a
/// page of it is then kept by whoever has it open.
inline bool HasMappingFolder()
{
    return *Platform::Inspection::Get().MappingFolder() != '\0';
}

/// A new folder where temp files go, for all users, gone with this object.
class TempFolder
{
public:
    TempFolder()
    {
        std::filesystem::create_directory(path);
        std::filesystem::permissions(path, std::filesystem::perms::all);
    }
    ~TempFolder()
    {
        std::error_code stays;
        std::filesystem::remove_all(path, stays);
    }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    const std::string path = Platform::Inspection::Get().DefaultTempFolder() +
                             std::string("/mempager_test_") + std::to_string(OwnId()) + "_" +
                             std::to_string(s_made++);

private:
    inline static int s_made = 0;
};

#endif
