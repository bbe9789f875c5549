#ifndef PLATFORM_WINDOWS_LIMITFACTS_H
#define PLATFORM_WINDOWS_LIMITFACTS_H

#include "Platform/Inspection.h"

#include <cstdint>

/// A folder and the disk that it is on, as seen by this user.
struct LookedAt {
    explicit LookedAt(const char* temp_folder);

    const char* temp_folder;
    unsigned long error = 0; ///< why no file can be made there, as the system tells it
    std::uint64_t size = 0;
    std::uint64_t free = 0;
    char kind[32] = "unknown kind"; ///< of file system
};

// Each looks at one subject and completes `fact`, of which the subject and its name are filled in.
// One that has no value then has nothing to tell.

void LookAtGroup(const LookedAt& folders, Platform::Inspection::Fact& fact);
void LookAtCommitment(const LookedAt& folders, Platform::Inspection::Fact& fact);
void LookAtMachine(const LookedAt& folders, Platform::Inspection::Fact& fact);
void LookAtDisk(const LookedAt& folders, Platform::Inspection::Fact& fact);
void LookAtTempFolder(const LookedAt& folders, Platform::Inspection::Fact& fact);
void LookAtAddressSpace(const LookedAt& folders, Platform::Inspection::Fact& fact);
void LookAtNamesAtLogout(const LookedAt& folders, Platform::Inspection::Fact& fact);
void LookAtMalloc(const LookedAt& folders, Platform::Inspection::Fact& fact);

#endif
