#ifndef PLATFORM_POSIX_INSPECTION_H
#define PLATFORM_POSIX_INSPECTION_H

#include "Platform/Platform.h"

#include <cstddef>

#include <sys/types.h>

// What can be told of files that may be anybody's.

/// Fills all of `facts` but the owner's name. Allocates nothing.
/// @return false with errno if nothing is there.
bool ReadFacts(const char* path, Platform::FileFacts& facts, uid_t& owner);

/// Writes the user's name, or the number if there is none. May allocate.
void WriteUserName(uid_t user, char* text, std::size_t size);

/// Writes the name of a process's program if the process and what bears the path have one owner.
void WriteProgramOf(const char* path, long process, char* text, std::size_t size);

#endif
