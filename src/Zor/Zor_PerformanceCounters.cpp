#include "Zor/Zor_PerformanceCounters.h"

#include <algorithm>
#include <chrono>
#include <functional>
#include <limits>
#include <new>

namespace
{

constexpr std::int64_t kNever = std::numeric_limits<std::int64_t>::min();

std::int64_t now()
{
    const auto since_start = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::nanoseconds>(since_start).count();
}

double seconds(std::int64_t nanoseconds)
{
    return static_cast<double>(nanoseconds) * 1e-9;
}

/// Stores `value` where it stands before what is there in the order of `better`.
template <class Better>
void improve(std::atomic<std::int64_t>& place, std::int64_t value, Better better)
{
    std::int64_t seen = place.load();
    while (better(value, seen) && !place.compare_exchange_weak(seen, value)) {
    }
}

} // namespace

// One counter -----------------------------------------------------------------------------------

constinit const RWCString Zor_PerformanceCounterData::RW_NULL;

Zor_PerformanceCounterData::Zor_PerformanceCounterData(const RWCString& name, int id) noexcept
    : m_name(name), m_id(id), m_marked_at(kNever), m_least(std::numeric_limits<std::int64_t>::max())
{
}

Zor_PerformanceCounterData::~Zor_PerformanceCounterData() = default;

void Zor_PerformanceCounterData::Mark() noexcept
{
    m_marks.fetch_add(1);
    m_marked_at.store(now());
}

void Zor_PerformanceCounterData::EndMark(int /*code*/, double /*value*/) noexcept
{
    const std::int64_t marked_at = m_marked_at.load();
    if (marked_at != kNever)
        add_interval(std::max<std::int64_t>(now() - marked_at, 0));
}

void Zor_PerformanceCounterData::End(int code, double value, void* /*data*/) noexcept
{
    EndMark(code, value);
}

void Zor_PerformanceCounterData::add_interval(std::int64_t nanoseconds) noexcept
{
    m_total.fetch_add(nanoseconds);
    improve(m_least, nanoseconds, std::less<>());
    improve(m_greatest, nanoseconds, std::greater<>());
    m_closes.fetch_add(1); // last: whoever reads a close finds its times
}

Zor_PerformanceCounterReading Zor_PerformanceCounterData::Read() const noexcept
{
    Zor_PerformanceCounterReading reading;
    reading.name = m_name;
    reading.id = m_id;
    reading.marks = m_marks.load();
    reading.closes = m_closes.load();
    reading.total = seconds(m_total.load());
    reading.least = reading.closes == 0 ? 0 : seconds(m_least.load());
    reading.greatest = seconds(m_greatest.load());
    return reading;
}

// The registry ----------------------------------------------------------------------------------

constinit Zor_PerformanceCounters Zor_PerformanceCounters::s_instance;
constinit std::atomic<int> Zor_PerformanceCounters::s_log_level{0};

Zor_PerformanceCounters* Zor_PerformanceCounters::Instance() noexcept
{
    return &s_instance;
}

int Zor_PerformanceCounters::GetLogLevel() noexcept
{
    return s_log_level.load(std::memory_order_relaxed);
}

void Zor_PerformanceCounters::SetLogLevel(int level) noexcept
{
    s_log_level.store(level, std::memory_order_relaxed);
}

Zor_PerformanceCounterData*
Zor_PerformanceCounters::GetOrAddCounter(Zor_PerformanceCountersTypes type, const char* group,
                                         const RWCString& name, const RWCString& instance,
                                         const RWCString& unit, int id, int precision, int level,
                                         Zor_PerformanceMiscData* misc) noexcept
{
    if (id != -1) {
        Zor_PerformanceCounterData* const known = find(name, id);
        return known != nullptr
                   ? known
                   : AddCounter(type, group, name, instance, unit, id, precision, level, misc);
    }
    if (Zor_PerformanceCounterData* const known = find_name(m_newest_name.load(), name))
        return known;

    auto* const fresh = new (std::nothrow) Zor_PerformanceCounterData(name, m_id.fetch_add(1));
    if (fresh == nullptr)
        return nullptr;
    Zor_PerformanceCounterData* const first = add_name(fresh);
    if (first == fresh)
        add(fresh);
    else
        delete fresh; // another thread was first
    return first;
}

Zor_PerformanceCounterData*
Zor_PerformanceCounters::AddCounter(Zor_PerformanceCountersTypes /*type*/, const char* /*group*/,
                                    const RWCString& name, const RWCString& /*instance*/,
                                    const RWCString& /*unit*/, int id, int /*precision*/,
                                    int /*level*/, Zor_PerformanceMiscData* /*misc*/) noexcept
{
    auto* const counter = new (std::nothrow) Zor_PerformanceCounterData(name, id);
    if (counter == nullptr)
        return nullptr;
    add_name(counter);
    add(counter);
    return counter;
}

std::vector<Zor_PerformanceCounterReading> Zor_PerformanceCounters::ReadAll() const
{
    std::vector<Zor_PerformanceCounterReading> readings;
    for (const Zor_PerformanceCounterData* at = m_newest.load(); at != nullptr; at = at->m_older)
        readings.push_back(at->Read());
    std::reverse(readings.begin(), readings.end());
    return readings;
}

/// The bearer of a name among the counters from `at` on.
Zor_PerformanceCounterData* Zor_PerformanceCounters::find_name(Zor_PerformanceCounterData* at,
                                                               const RWCString& name) noexcept
{
    while (at != nullptr && at->m_name != name)
        at = at->m_older_name;
    return at;
}

Zor_PerformanceCounterData* Zor_PerformanceCounters::find(const RWCString& name,
                                                          int id) const noexcept
{
    Zor_PerformanceCounterData* at = m_newest.load();
    while (at != nullptr && (at->m_id != id || at->m_name != name))
        at = at->m_older;
    return at;
}

/// Gives the counter its name, unless another bears it. @return the bearer.
Zor_PerformanceCounterData*
Zor_PerformanceCounters::add_name(Zor_PerformanceCounterData* counter) noexcept
{
    Zor_PerformanceCounterData* newest = m_newest_name.load();
    do {
        if (Zor_PerformanceCounterData* const first = find_name(newest, counter->m_name))
            return first;
        counter->m_older_name = newest;
    } while (!m_newest_name.compare_exchange_weak(newest, counter));
    return counter;
}

void Zor_PerformanceCounters::add(Zor_PerformanceCounterData* counter) noexcept
{
    counter->m_older = m_newest.load();
    while (!m_newest.compare_exchange_weak(counter->m_older, counter)) {
    }
}
