#include "Mem/Mem_Repeats.h"

#include "NRVlog/Zor_Log.h"

#include <utility>

bool Mem_Repeats::IsNews(std::uint64_t cause)
{
    constexpr std::chrono::seconds at_least{1};
    const auto now = std::chrono::steady_clock::now();
    if (m_has_reported && m_cause == cause && now - m_reported < at_least) {
        ++m_unreported;
        return false;
    }
    m_cause = cause;
    m_reported = now;
    m_has_reported = true;
    return true;
}

void Mem_Repeats::TellCount(const char* function)
{
    if (const unsigned untold = std::exchange(m_unreported, 0u))
        ZOR_LOG(function, 3, "\tThe last failure came %u times more within a second\n", untold);
}
