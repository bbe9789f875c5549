#ifndef MEM_COUNTER_H
#define MEM_COUNTER_H

#include "Zor/Zor_PerformanceCounters.h"

/// A performance counter that may be off: then nothing is counted, at no cost. Not owned; copied
/// freely.
class Mem_Counter
{
public:
    explicit Mem_Counter(Zor_PerformanceCounterData* counter) : m_counter(counter) {}

    /// Begins an interval.
    void Mark() const
    {
        if (m_counter != nullptr)
            m_counter->Mark();
    }

    /// Ends the interval that was begun last.
    void Close() const
    {
        if (m_counter != nullptr)
            m_counter->End(-999, -1.0, nullptr);
    }

private:
    Zor_PerformanceCounterData* m_counter;
};

#endif
