#include "Platform/MetLimits.h"

#include "Platform/LimitTable.h"
#include "Platform/PerThread.h"

#include <bit>
#include <cstdio>
#include <cstring>

namespace
{

using Platform::LimitCount;

struct Numbers {
    std::uint64_t most;
    std::uint64_t left;
};

struct Met {
    std::uint32_t set; ///< a bit for each limit
    Numbers numbers[LimitCount];
};
PLATFORM_PER_THREAD PerThread<Met> met{{}};

/// Appends to a text of `size` bytes with its zero. A form need not show all the numbers.
void print(char* text, std::size_t size, const char* form, unsigned long long most = 0,
           unsigned long long left = 0)
{
    const std::size_t length = std::strlen(text);
    std::snprintf(text + length, size - length, form, most, left);
}

/// The numbers of the first limit; none if nothing was met.
Platform::Mappings::LimitsMet first_met()
{
    const int first = std::countr_zero(met->set);
    if (first >= LimitCount)
        return {};
    return {met->set, LimitTable[first].subject, met->numbers[first].most,
            met->numbers[first].left};
}

} // namespace

void ForgetLimits()
{
    met->set = 0;
}

void MeetLimit(Platform::Subject limit, std::uint64_t most, std::uint64_t left)
{
    const int index = static_cast<int>(limit);
    met->set |= 1u << index;
    met->numbers[index] = {most, left};
}

Platform::Mappings::LimitsMet WriteMetLimits(char* text, std::size_t size)
{
    const char* separator = "";
    *text = '\0';
    for (int i = 0; i < LimitCount; ++i) {
        if ((met->set & 1u << i) == 0)
            continue;
        const auto in_units = [unit = LimitTable[i].unit](std::uint64_t number) {
            return static_cast<unsigned long long>(number >> unit);
        };
        print(text, size, separator);
        print(text, size, LimitTable[i].met, in_units(met->numbers[i].most),
              in_units(met->numbers[i].left));
        separator = "; ";
    }
    return first_met();
}

std::vector<Platform::Inspection::Fact> LookAtAll(const LookedAt& folders)
{
    std::vector<Platform::Inspection::Fact> facts;
    for (const LimitRow& row : LimitTable)
        if (row.look != nullptr) {
            Platform::Inspection::Fact& fact = facts.emplace_back();
            fact.subject = row.subject;
            fact.name = row.name;
            row.look(folders, fact);
            if (fact.value.empty())
                facts.pop_back();
        }
    return facts;
}
