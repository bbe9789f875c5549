#ifndef MEM_FRAGMENTSCOUNTER_H
#define MEM_FRAGMENTSCOUNTER_H

#include "Rw/RWCString.h"
#include "Zor/Zor_PerformanceCounters.h"

/// A new performance counter of that name for one buffer; the counters of one name differ by their
/// ids alone. Owned by the process's counters. Throws std::bad_alloc.
inline Zor_PerformanceCounterData* AddFragmentsCounter(const RWCString& name)
{
    Zor_PerformanceCounters* const counters = Zor_PerformanceCounters::Instance();
    const int id = counters->m_id++;
    return counters->AddCounter(ZOR_COUNT_INTERVALS, Zor_PerformanceCounterData::SYSTEM_GENERAL,
                                name, Zor_PerformanceCounterData::RW_NULL,
                                Zor_PerformanceCounterData::RW_NULL, id, 5, 7, nullptr);
}

/// A buffer's counter, which counts only while the counters' level is above 4. That is asked at
/// each use, since the level can change at any time.
class Mem_FragmentsCounter
{
public:
    /// `counter` isn't owned, and may be null: then nothing is counted.
    explicit Mem_FragmentsCounter(Zor_PerformanceCounterData* counter) : m_counter(counter) {}

    /// Begins an interval.
    void Mark() const
    {
        if (counts())
            m_counter->Mark();
    }

    /// Closes the interval, by either of the counter's two ways to do that.
    void End() const
    {
        if (counts())
            m_counter->End(-999, -1.0, nullptr);
    }
    void EndMark() const
    {
        if (counts())
            m_counter->EndMark(-999, -1.0);
    }

private:
    bool counts() const
    {
        return m_counter != nullptr && Zor_PerformanceCounters::GetLogLevel() > 4;
    }

    Zor_PerformanceCounterData* m_counter;
};

#endif
