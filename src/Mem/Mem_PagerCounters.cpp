#include "Mem/Mem_PagerCounters.h"

#include "NRVlog/Zor_LogFile.h"

namespace
{
constexpr int kCode = 5830000;
constexpr int kLevel = 7;
} // namespace

const RWCString Mem_PagerCounters::ALLOCATE_COUNTER_NAME("MEM_Allocate");
const RWCString Mem_PagerCounters::CACHE_COUNTER_NAME("MEM_Cache");
const RWCString Mem_PagerCounters::CLEAR_CACHE_COUNTER_NAME("MEM_ClearCache");
const RWCString Mem_PagerCounters::MAP_FROM_CACHE_COUNTER_NAME("MEM_MapFromCache");
const RWCString Mem_PagerCounters::MAP_FROM_SHARED_COUNTER_NAME("MEM_MapFromSharedMem");
const RWCString Mem_PagerCounters::UNMAP_TO_CACHE_COUNTER_NAME("MEM_UnmapToCache");
const RWCString Mem_PagerCounters::UNMAP_TO_SHARED_COUNTER_NAME("MEM_UnmapToSharedMem");

Mem_PagerCounters::Mem_PagerCounters() : m_counters_on(ZorGLog.GetLogLevel(kCode) == kLevel) {}

Zor_PerformanceCounterData* Mem_PagerCounters::find(const RWCString& name)
{
    return Zor_PerformanceCounters::Instance()->GetOrAddCounter(
        {}, Zor_PerformanceCounterData::SYSTEM_GENERAL, name, Zor_PerformanceCounterData::RW_NULL,
        Zor_PerformanceCounterData::RW_NULL, -1, 5, 7, nullptr);
}
