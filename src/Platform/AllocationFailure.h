#ifndef PLATFORM_ALLOCATIONFAILURE_H
#define PLATFORM_ALLOCATIONFAILURE_H

#include "Platform/Process.h"

// What a failed allocation comes to on any system. Each system has these called, on the thread that
// failed and where nothing may be cancelled.

/// Has that handler asked from now on.
void SetAllocationHandler(Platform::Process::AllocationHandler handler);

/// Asks it for help after malloc, or one of its kin, has failed for `size` bytes.
/// @return whether another try is worth it.
bool HelpMalloc(std::size_t size) noexcept;

/// The same after `operator new` has failed. That asks malloc, so where malloc comes by
/// HelpMalloc() this is the second time that the same failure comes by.
bool HelpNew() noexcept;

#endif
