#ifndef PLATFORM_WINDOWS_ALLOCATIONFAILURE_H
#define PLATFORM_WINDOWS_ALLOCATIONFAILURE_H

/// Whether the C runtime that this library uses calls its handler when malloc fails, and not only
/// the C++ runtime when `operator new` does.
bool MallocComesByHere() noexcept;

#endif
