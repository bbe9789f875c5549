#include "Mem/Mem_Limits.h"

#include "Mem/Mem_Reason.h"
#include "NRVlog/Zor_Log.h"
#include "Platform/LastError.h"

#include <cstdio>

constinit Mem_Limits RegionLimits;
constinit Mem_Limits ViewLimits;

void Mem_Limits::Met()
{
    Platform::Mappings& platform = Platform::Mappings::Get();
    m_limits = platform.LastLimits(m_text, sizeof m_text);
    m_met = m_limits.set;
    m_error = Platform::LastError();
    m_is_setting = false;
    m_is_full = platform.LastCause() == Platform::Mappings::Cause::Full;
}

void Mem_Limits::MetSetting(const char* form, unsigned long long first, unsigned long long second,
                            bool is_full)
{
    m_is_full = is_full;
    m_is_setting = true;
    m_error = 0;
    m_limits = {};
    // The platform's limits are numbers of 32 bits, so this bit keeps ours apart from them.
    constexpr std::uint64_t not_the_platforms = std::uint64_t{1} << 63;
    m_met = reinterpret_cast<std::uintptr_t>(form) | not_the_platforms;
    std::snprintf(m_text, sizeof m_text, form, first, second);
}

void Mem_Limits::Ended()
{
    m_met = 0;
    m_reported = 0;
    m_is_full = false;
    m_repeats.TellCount(m_function);
}

bool Mem_Limits::IsNews(const char* function)
{
    constexpr std::uint64_t not_a_limit = std::uint64_t{1} << 62;
    if (!m_repeats.IsNews(m_met != 0 ? m_met : m_error | not_a_limit))
        return false;
    m_repeats.TellCount(function);
    m_function = function;
    return true;
}

void Mem_Limits::Tell(const char* function)
{
    if (m_met == 0 || m_met == m_reported)
        return;
    m_reported = m_met;
    ZOR_LOG(function, 3, "\tA limit stands in the way: %s\n", static_cast<const char*>(m_text));
}

void Mem_Limits::Explain(Mem_Reason& reason) const
{
    reason.error = m_error;
    if (m_met == 0)
        return;
    reason.limit =
        m_is_setting ? Mem_Reason::Limit::Setting : static_cast<Mem_Reason::Limit>(m_limits.first);
    reason.most = m_limits.most;
    reason.left = m_limits.left;
    reason.SetText(m_text);
}
