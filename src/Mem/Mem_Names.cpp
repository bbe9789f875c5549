#include "Mem/Mem_MemInfo.h"
#include "Mem/Mem_NewName.h"
#include "Platform/Mappings.h"
#include "Platform/Process.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <string_view>

// The names that the library gives, made and recognised side by side.

namespace
{
/// Takes "_" and a decimal number, as the library writes it, off a name's front.
bool take_number(std::string_view& rest)
{
    if (!rest.starts_with('_'))
        return false;
    rest.remove_prefix(rest.substr(1).starts_with('-') ? 2 : 1);
    const std::size_t digits = std::min(rest.find_first_not_of("0123456789"), rest.size());
    const bool is_written_so = digits == 1 || (digits <= 20 && !rest.starts_with('0'));
    rest.remove_prefix(digits);
    return digits != 0 && is_written_so;
}

/// Takes a text off a name's front.
bool take(std::string_view& rest, std::string_view text)
{
    const bool begins_so = rest.starts_with(text);
    rest.remove_prefix(begins_so ? text.size() : 0);
    return begins_so;
}

/// Whether the name is s_BlockPrefix and three numbers, the first of which, a process's id, is
/// above 0.
bool is_unique_name(std::string_view name)
{
    return take(name, BaseMapInfo::s_BlockPrefix) && !name.starts_with("_-") &&
           !name.starts_with("_0") && take_number(name) && take_number(name) && take_number(name) &&
           name.empty();
}

RWCString unique_name(long long number)
{
    Platform::Process& process = Platform::Process::Get();
    char text[256];
    std::snprintf(text, sizeof text, "%s_%ld_%ld_%lld", BaseMapInfo::s_BlockPrefix,
                  process.ProcessId(), process.ThreadId(), number);
    return RWCString(text);
}

/// A random number, so that nobody can have planted something under the name that it makes. It is
/// above every number that is given in turn, these being ints, and has at most 11 digits, as many
/// characters as those can have with their sign.
long long unforeseeable_number()
{
    constexpr std::uint64_t least = std::uint64_t{1} << 31, end = 100'000'000'000;
    const std::uint64_t number = least + Platform::Process::Get().RandomNumber() % (end - least);
    return static_cast<long long>(number);
}

std::string_view view_of(const RWCString& text)
{
    return {text.data(), text.length()}; // with a zero byte in the middle, if there is one
}

/// Takes the next run without "_" off the front, as a tokenizer does.
std::string_view next_run(std::string_view& rest)
{
    rest.remove_prefix(std::min(rest.find_first_not_of('_'), rest.size()));
    const std::string_view run = rest.substr(0, rest.find('_'));
    rest.remove_prefix(run.size());
    return run;
}
} // namespace

const char* const BaseMapInfo::s_BlockPrefix = "NorvaneMemoryBlock";
int BaseMapInfo::s_unique_name_id = 0;

RWCString BaseMapInfo::CreateUniqueName()
{
    return unique_name(std::atomic_ref(s_unique_name_id).fetch_add(1));
}

bool Mem_NewName::TryAnother()
{
    constexpr int near_tries = 3, tries = 6;
    if (++m_taken >= tries ||
        Platform::Mappings::Get().LastCause() != Platform::Mappings::Cause::NameExists)
        return false;
    m_text = m_taken <= near_tries ? BaseMapInfo::CreateUniqueName()
                                   : unique_name(unforeseeable_number());
    return true;
}

bool BaseMapInfo::IsUniqueName(const RWCString& name)
{
    return is_unique_name(view_of(name));
}

bool BaseMapInfo::IsUniqueName(const char* name)
{
    return is_unique_name(name);
}

RWCString BaseMapInfo::TempFileName(const RWCString& first_part, const RWCString& unique_name)
{
    return first_part + unique_name;
}

bool BaseMapInfo::IsTempFileName(const char* name, const RWCString& first_part)
{
    std::string_view rest = name;
    return take(rest, view_of(first_part)) && is_unique_name(rest);
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): a copy shares the bytes
int BaseMapInfo::GetProcessIdFromUniqueName(RWCString name)
{
    return GetProcessIdFromUniqueName(name.data());
}

int BaseMapInfo::GetProcessIdFromUniqueName(const char* name)
{
    const std::string_view path = name;
    std::string_view file = path.substr(path.find_last_of("/\\") + 1); // none is the last position
    next_run(file);
    const std::string_view run = next_run(file);
    int process = 0;
    std::from_chars(run.data(), run.data() + run.size(), process);
    return process;
}
