#ifndef MEM_REPEATS_H
#define MEM_REPEATS_H

#include <chrono>
#include <cstdint>

/// Keeps failures of one cause that come again within a second from being reported again and again:
/// a host that tries on would fill its log, and each report takes its time.
///
/// Allocates nothing. Threads: under the pager's mutex.
class Mem_Repeats
{
public:
    /// Whether a failure of this cause is to be reported now. One that isn't is counted.
    bool IsNews(std::uint64_t cause);

    /// Logs at level 3, in the name of `function`, how many weren't reported since the last that
    /// was, if any: before the next that is reported, and when the operation succeeds again.
    void TellCount(const char* function);

    /// Has the next one reported whatever was reported before.
    void Forget() { *this = {}; }

private:
    std::uint64_t m_cause = 0;
    std::chrono::steady_clock::time_point m_reported; ///< when
    bool m_has_reported = false;
    unsigned m_unreported = 0;
};

#endif
