#ifndef PLATFORM_POSIX_LIMITFACTS_H
#define PLATFORM_POSIX_LIMITFACTS_H

#include "Platform/Inspection.h"

#include <cstdint>

/// A mounted file system, as seen by this user.
struct MountedAt {
    explicit MountedAt(const char* folder);

    const char* folder;
    int error = 0; ///< why no file can be made there, as errno tells it
    std::uint64_t size = 0;
    std::uint64_t free = 0;
    bool counts_names = false;
    std::uint64_t names = 0;
    std::uint64_t free_names = 0;
    bool on_disk = false;
    char kind[32] = "unknown kind";
};

/// The folders that facts are told of.
struct LookedAt {
    explicit LookedAt(const char* temp_folder);

    const MountedAt shared;
    const MountedAt temp;
};

// Each looks at one subject and completes `fact`, of which the subject and its name are filled in.
// One that has no value then has nothing to tell.

void LookAtSharedMemory(const LookedAt& folders, Platform::Inspection::Fact& fact);
void LookAtNames(const LookedAt& folders, Platform::Inspection::Fact& fact);
void LookAtDisk(const LookedAt& folders, Platform::Inspection::Fact& fact);
void LookAtGroup(const LookedAt& folders, Platform::Inspection::Fact& fact);
void LookAtMachine(const LookedAt& folders, Platform::Inspection::Fact& fact);
void LookAtCommitment(const LookedAt& folders, Platform::Inspection::Fact& fact);
void LookAtAddressSpace(const LookedAt& folders, Platform::Inspection::Fact& fact);
void LookAtMaps(const LookedAt& folders, Platform::Inspection::Fact& fact);
void LookAtFileSize(const LookedAt& folders, Platform::Inspection::Fact& fact);
void LookAtDescriptors(const LookedAt& folders, Platform::Inspection::Fact& fact);
void LookAtTempFolder(const LookedAt& folders, Platform::Inspection::Fact& fact);
void LookAtViews(const LookedAt& folders, Platform::Inspection::Fact& fact);
void LookAtHugePages(const LookedAt& folders, Platform::Inspection::Fact& fact);
void LookAtNamesAtLogout(const LookedAt& folders, Platform::Inspection::Fact& fact);
void LookAtMalloc(const LookedAt& folders, Platform::Inspection::Fact& fact);

#endif
