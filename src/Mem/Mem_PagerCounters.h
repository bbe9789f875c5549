#ifndef MEM_PAGERCOUNTERS_H
#define MEM_PAGERCOUNTERS_H

#include "Mem/Mem_Counter.h"
#include "Rw/RWCString.h"

/// The performance counters of a pager. Whether they are in use is decided when the pager is made:
/// then level 7 has to be set for the code 5830000. Where they aren't, all of this costs nothing.
/// Threads: any. Nothing here allocates once a counter has been used.
class Mem_PagerCounters
{
public:
    Mem_PagerCounters();

    /// The counter of one of the names below.
    Mem_Counter Get(const RWCString& name) const
    {
        return Mem_Counter(m_counters_on ? find(name) : nullptr);
    }

    bool AreOn() const { return m_counters_on; }

    static const RWCString ALLOCATE_COUNTER_NAME;
    static const RWCString CACHE_COUNTER_NAME;
    static const RWCString CLEAR_CACHE_COUNTER_NAME;
    static const RWCString MAP_FROM_CACHE_COUNTER_NAME;
    static const RWCString MAP_FROM_SHARED_COUNTER_NAME;
    static const RWCString UNMAP_TO_CACHE_COUNTER_NAME;
    static const RWCString UNMAP_TO_SHARED_COUNTER_NAME;

private:
    static Zor_PerformanceCounterData* find(const RWCString& name);

    const bool m_counters_on;
};

#endif
