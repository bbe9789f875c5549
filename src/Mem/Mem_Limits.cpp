#include "Mem/Mem_Limits.h"

#include "NRVlog/Zor_Log.h"
#include "Platform/Mappings.h"

#include <cstdio>

constinit Mem_Limits RegionLimits;
constinit Mem_Limits ViewLimits;

void Mem_Limits::Met()
{
    m_met = Platform::Mappings::Get().LastLimits(m_text, sizeof m_text);
    m_is_full = Platform::Mappings::Get().LastCause() == Platform::Mappings::Cause::Full;
}

void Mem_Limits::MetSetting(const char* form, unsigned long long first, unsigned long long second,
                            bool is_full)
{
    m_is_full = is_full;
    // The platform's limits are numbers of 32 bits, so this bit keeps ours apart from them.
    constexpr std::uint64_t not_the_platforms = std::uint64_t{1} << 63;
    m_met = reinterpret_cast<std::uintptr_t>(form) | not_the_platforms;
    std::snprintf(m_text, sizeof m_text, form, first, second);
}

void Mem_Limits::Ended()
{
    m_met = 0;
    m_told = 0;
    m_is_full = false;
}

void Mem_Limits::Tell(const char* function)
{
    if (m_met == 0 || m_met == m_told)
        return;
    m_told = m_met;
    ZOR_LOG(function, 3, "\tA limit stands in the way: %s\n", static_cast<const char*>(m_text));
}
