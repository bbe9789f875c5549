#ifndef MEM_SETTINGS_H
#define MEM_SETTINGS_H

#include "Mem/Mem_Configuration.h"

/// Reads a setting where nothing may fail. The settings are made anew after a host took them away,
/// and where there is no memory for that, there is none to keep either: 0.
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

#endif
