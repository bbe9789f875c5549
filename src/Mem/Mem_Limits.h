#ifndef MEM_LIMITS_H
#define MEM_LIMITS_H

#include "Mem/Mem_Repeats.h"
#include "Platform/Mappings.h"

#include <cstdint>

struct Mem_Reason;

/// What stands in the way of one kind of operation, reported once for each episode. An episode
/// begins when such an operation fails for good, and ends when one succeeds, or fails for another
/// limit.
///
/// The heaps say what they met; whether that was the end, and is to be reported, the pager knows:
/// most failures are mended by clearing the cache. Allocates nothing and throws nothing. Threads:
/// under the pager's mutex, as the heaps.
class Mem_Limits
{
public:
    /// Remembers what the platform's last operation on a mapping or a view failed for.
    void Met();

    /// The same for a limit that the settings or this library have set. `form`, printf's for the
    /// two numbers, is a literal and stands for the limit.
    /// `is_full`: memory or a disk is full, so that it would help if others left some of it.
    void MetSetting(const char* form, unsigned long long first, unsigned long long second,
                    bool is_full = false);

    /// Whether what was met last is that memory or a disk is full.
    bool IsFull() const { return m_is_full; }

    /// An operation of this kind succeeded.
    void Ended();

    /// Whether an operation that has failed for good is to be reported, in the name of `function`,
    /// a literal: not if the same has just been reported.
    bool IsNews(const char* function);

    /// Logs the limit that was met last at level 3, in the name of `function`, unless this episode
    /// has reported it already or no limit is known.
    void Tell(const char* function);

    /// Completes the reason of an operation that has failed for good.
    void Explain(Mem_Reason& reason) const;

    /// Has the next failure reported whatever was reported before.
    void ForgetRepeats() { m_repeats.Forget(); }

private:
    std::uint64_t m_met = 0; ///< stands for the limits; 0 for none
    std::uint64_t m_reported = 0;
    bool m_is_full = false;
    bool m_is_setting = false;
    unsigned long m_error = 0; ///< the system's number
    Platform::Mappings::LimitsMet m_limits;
    char m_text[256] = "";
    Mem_Repeats m_repeats;
    const char* m_function = ""; ///< what the last failure was reported in the name of
};

/// Making regions, and making views.
extern constinit Mem_Limits RegionLimits;
extern constinit Mem_Limits ViewLimits;

#endif
