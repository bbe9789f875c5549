#ifndef PLATFORM_POSIX_SHAREDMAPPING_H
#define PLATFORM_POSIX_SHAREDMAPPING_H

#include "Platform/Posix/SharedFile.h"

#include <atomic>
#include <cstdint>
#include <memory>

#include <sys/types.h>

/// What stands behind the handle of a mapping.
struct SharedMapping {
    SharedFile file;
    OwnName name;       ///< in the folder of shared memory: of the file, or of a link to it
    OwnName spare_name; ///< of the file in the spare folder
    std::uint64_t size = 0;
    std::atomic<bool> is_untouched = false; ///< new memory of which no view was made yet
    pid_t creator = 0;                      ///< 0 where the names are another process's business
    bool IsSpare() const { return spare_name.identity != FileIdentity(); }

    SharedMapping* previous = nullptr;
    SharedMapping* next = nullptr;

    // While the maps of the process are read:
    FileIdentity in_maps; ///< what the maps call the file
    SharedMapping* next_in_bucket = nullptr;
};

using MappingOwner = std::unique_ptr<SharedMapping>;

// What of a mapping needs memory, to be done before a lock is taken. Each fails with errno: null,
// or false. A spare folder that can't be one is none.

MappingOwner AllocateMapping();
MappingOwner PrepareMapping(const char* name, std::uint64_t size);
bool PrepareSpare(SharedMapping& mapping, const char* name, const char* spare_folder);

/// Makes what a new mapping consists of, in shared memory or else in the spare folder. The names
/// are prepared; one in the spare folder only if that can be used.
/// @return false with errno, and with nothing left behind.
bool MakeInSharedMemory(SharedMapping& mapping, const char* spare_folder);

/// The same for a mapping over a new file at `path`. Its name is prepared.
Making MakeOverFile(SharedMapping& mapping, const char* path);

/// Whether an error tells that memory or a disk is full, or that this user has had its share.
bool IsForLackOfSpace(int error);

/// Takes the names away that this process gave. @return false with errno if one is still there.
bool RemoveOwnNames(const SharedMapping& mapping);

#endif
