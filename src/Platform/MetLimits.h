#ifndef PLATFORM_METLIMITS_H
#define PLATFORM_METLIMITS_H

#include "Platform/Mappings.h"
#include "Platform/Subject.h"

#include <cstddef>
#include <cstdint>

// Each thread keeps the limits that its present operation has met, there where they are met: later
// the numbers would be others. There can be two, as where shared memory is full and the disk too.
// Nothing here allocates, and errno stays as it is.

/// Begins an operation.
void ForgetLimits();

/// Remembers a limit: how much it is, and how much of that was left before this operation.
void MeetLimit(Platform::Subject limit, std::uint64_t most, std::uint64_t left);

/// Tells of those that were met, by the system's table, as Mappings::LastLimits() does.
Platform::Mappings::LimitsMet WriteMetLimits(char* text, std::size_t size);

#endif
