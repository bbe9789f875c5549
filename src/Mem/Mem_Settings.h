#ifndef MEM_SETTINGS_H
#define MEM_SETTINGS_H

#include "Mem/Mem_Configuration.h"

#include <cstdlib>

/// Reads a setting where nothing may fail. The settings may have to be made anew, if the host has
/// removed them; 0 if there is no memory for that.
template <class Setting>
unsigned long long SettingOrNone(Setting setting) noexcept
{
    try {
        return (MEM_MemoryConfiguration::GetInstance()->*setting)();
    } catch (...) {
        return 0;
    }
}

/// The bytes that may be mapped before views are given up for others.
inline unsigned long long CacheLimit() noexcept
{
    return SettingOrNone(&MEM_MemoryConfiguration::HeapCacheInBytes);
}

/// Whether the cache is to be given up when an allocation of the host's fails: unless the variable
/// is set, to whatever value.
inline bool ReclaimIsWanted()
{
    return std::getenv("VORTELIX_DIS_NEW_HANDLER") == nullptr;
}

#endif
