#ifndef ZOR_ZOR_PERFORMANCECOUNTERS_H
#define ZOR_ZOR_PERFORMANCECOUNTERS_H

/// @file
/// Counters of how often and how long.

#include "Rw/RWCString.h"
#include "mempager_export.h"

#include <atomic>
#include <cstdint>
#include <vector>

/// What a counter counts. There is one kind: intervals of time.
enum Zor_PerformanceCountersTypes {
    ZOR_COUNT_INTERVALS = 0, ///< stretches of time
};

/// Further data of a counter. There is none: null is passed.
class Zor_PerformanceMiscData;

/// What a counter has gathered at one moment. Times are seconds; without a close they are 0.
struct Zor_PerformanceCounterReading {
    RWCString name;                ///< not always unique
    int id = 0;                    ///< the counter's number
    unsigned long long marks = 0;  ///< how often an interval was opened
    unsigned long long closes = 0; ///< how often one was closed
    double total = 0;              ///< sum of all intervals
    double least = 0;              ///< the shortest
    double greatest = 0;           ///< the longest
};

/// One counter: sums up intervals that Mark() opens and EndMark() or End() closes.
///
/// Each close measures from the latest mark, so a second close for one mark counts as one more
/// interval. A mark that follows a mark starts the interval again. A close before the first mark
/// does nothing.
///
/// Threads: any; each number is right by itself. Where several threads time with one counter at
/// the same time, they share its mark. No operation allocates, waits or throws.
/// Lifetime: until the process ends; the registry owns it.
class MEMPAGER_EXPORT Zor_PerformanceCounterData
{
public:
    /// The group that counters of a whole process belong to.
    static constexpr const char* SYSTEM_GENERAL = "General";

    /// Stands for a text that isn't given.
    static const RWCString RW_NULL;

    Zor_PerformanceCounterData(const Zor_PerformanceCounterData&) = delete;
    Zor_PerformanceCounterData& operator=(const Zor_PerformanceCounterData&) = delete;

    /// Opens an interval.
    void Mark() noexcept;

    /// Closes the interval. Both arguments are kept for callers that pass them on and change
    /// nothing.
    void EndMark(int code, double value) noexcept;

    /// The same for counters that measure in another way: here as EndMark().
    virtual void End(int code, double value, void* data) noexcept;

    /// What was gathered up to now.
    Zor_PerformanceCounterReading Read() const noexcept;

protected:
    /// A counter that has counted nothing yet.
    Zor_PerformanceCounterData(const RWCString& name, int id) noexcept;
    virtual ~Zor_PerformanceCounterData();

private:
    friend class Zor_PerformanceCounters;

    void add_interval(std::int64_t nanoseconds) noexcept;

    const RWCString m_name;
    const int m_id;
    std::atomic<std::int64_t> m_marked_at; // nanoseconds of a steady clock
    std::atomic<unsigned long long> m_marks{0};
    std::atomic<unsigned long long> m_closes{0};
    std::atomic<std::int64_t> m_total{0}; // nanoseconds, as the next two
    std::atomic<std::int64_t> m_least;
    std::atomic<std::int64_t> m_greatest{0};

    // Places in the registry's lists, set before the counter is seen there.
    Zor_PerformanceCounterData* m_older = nullptr;
    Zor_PerformanceCounterData* m_older_name = nullptr;
};

/// The counters of the process. Counters are added and never removed.
///
/// Threads: any. No operation waits for another thread, so a thread that runs out of memory in
/// here, or a fork at any moment, leaves nothing locked.
class MEMPAGER_EXPORT Zor_PerformanceCounters
{
public:
    /// The registry of the process: works before any constructor has run and is never destroyed.
    static Zor_PerformanceCounters* Instance() noexcept;

    /// How closely counters are to be kept; callers compare it with a level of their own. 0, the
    /// default, is none.
    static int GetLogLevel() noexcept;
    /// Sets that level.
    static void SetLogLevel(int level) noexcept;

    /// Finds the counter called `name`, the first made if there are several, or adds one with a
    /// fresh id. With an id other than -1 the counter has to have that id too. Finding allocates
    /// nothing. The other arguments are kept for callers that pass them on.
    /// @return the counter, which stays the registry's; null if there was no memory for one.
    Zor_PerformanceCounterData* GetOrAddCounter(Zor_PerformanceCountersTypes type,
                                                const char* group, const RWCString& name,
                                                const RWCString& instance, const RWCString& unit,
                                                int id, int precision, int level,
                                                Zor_PerformanceMiscData* misc) noexcept;

    /// Adds a counter with that name and id, whether there is one or not.
    /// @return as GetOrAddCounter().
    Zor_PerformanceCounterData* AddCounter(Zor_PerformanceCountersTypes type, const char* group,
                                           const RWCString& name, const RWCString& instance,
                                           const RWCString& unit, int id, int precision, int level,
                                           Zor_PerformanceMiscData* misc) noexcept;

    /// Reads all counters, in the order in which they were added. Throws std::bad_alloc.
    std::vector<Zor_PerformanceCounterReading> ReadAll() const;

    /// The next id that is free: whoever takes one adds one, in a single step.
    std::atomic<int> m_id{0};

private:
    constexpr Zor_PerformanceCounters() noexcept = default;

    static Zor_PerformanceCounterData* find_name(Zor_PerformanceCounterData* at,
                                                 const RWCString& name) noexcept;
    Zor_PerformanceCounterData* find(const RWCString& name, int id) const noexcept;
    Zor_PerformanceCounterData* add_name(Zor_PerformanceCounterData* counter) noexcept;
    void add(Zor_PerformanceCounterData* counter) noexcept;

    static Zor_PerformanceCounters s_instance;
    static std::atomic<int> s_log_level;

    std::atomic<Zor_PerformanceCounterData*> m_newest{nullptr};      // all counters
    std::atomic<Zor_PerformanceCounterData*> m_newest_name{nullptr}; // the first of each name
};

#endif
