#ifndef PLATFORM_WINDOWS_SYSTEM_H
#define PLATFORM_WINDOWS_SYSTEM_H

// The system's header, without what this library doesn't need and what stands in its way.

#define WIN32_LEAN_AND_MEAN
#if !defined(NOMINMAX) // the C++ library's own headers may have
#define NOMINMAX
#endif
#include <windows.h>

#undef GetFreeSpace

#endif
