#include "Mem/Mem_Reason.h"

#include "Mem/Mem_Limits.h"
#include "Mem/Mem_Refusal.h"
#include "Platform/PerThread.h"
#include "Platform/Subject.h"

#include <cstdio>
#include <iterator>
#include <ostream>
#include <string_view>

namespace
{

using Limit = Mem_Reason::Limit;
using Operation = Mem_Reason::Operation;

PLATFORM_PER_THREAD PerThread<Mem_Reason> last_reason{{}};

/// In the order of Mem_Reason::Operation.
constexpr const char* operation_texts[] = {"nothing",      "a new piece",     "a registration",
                                           "a mapping",    "a mapping ahead", "a call",
                                           "an allocation"};
static_assert(std::size(operation_texts) == static_cast<int>(Operation::HostAllocation) + 1);

/// What is said where the limit itself has said nothing, in the order of Mem_Reason::Limit.
constexpr const char* limit_texts[] = {"shared memory is full",
                                       "shared memory takes no more names",
                                       "the temp folder's disk is full",
                                       "the temp folder's disk takes no more names",
                                       "the user's disk quota is used up",
                                       "the memory of the process's group is used up",
                                       "the machine's memory is used up",
                                       "the machine promises no more memory",
                                       "the address space is used up",
                                       "the process may have no more maps",
                                       "the process may write no larger files",
                                       "the process may open no more files",
                                       "the machine opens no more files",
                                       "a setting of the library's",
                                       "there is no memory left for it",
                                       "it can't be had",
                                       "it is no good descriptor",
                                       "the piece was freed",
                                       "the process is ending",
                                       "the system doesn't say why"};
static_assert(std::size(limit_texts) == static_cast<int>(Limit::Unknown) + 1);

/// The text of `value`, which a host may have made up.
template <class Enum, std::size_t count>
const char* text_of(Enum value, const char* const (&texts)[count])
{
    const auto at = static_cast<std::size_t>(value);
    return at < count ? texts[at] : "";
}

constexpr bool is_same(Limit limit, Platform::Subject subject)
{
    return static_cast<int>(limit) == static_cast<int>(subject);
}
static_assert(is_same(Limit::SharedMemory, Platform::Subject::SharedMemory));
static_assert(is_same(Limit::SharedMemoryNames, Platform::Subject::SharedMemoryNames));
static_assert(is_same(Limit::Disk, Platform::Subject::Disk));
static_assert(is_same(Limit::DiskNames, Platform::Subject::DiskNames));
static_assert(is_same(Limit::Quota, Platform::Subject::Quota));
static_assert(is_same(Limit::Group, Platform::Subject::Group));
static_assert(is_same(Limit::Machine, Platform::Subject::Machine));
static_assert(is_same(Limit::Commitment, Platform::Subject::Commitment));
static_assert(is_same(Limit::AddressSpace, Platform::Subject::AddressSpace));
static_assert(is_same(Limit::Maps, Platform::Subject::Maps));
static_assert(is_same(Limit::FileSize, Platform::Subject::FileSize));
static_assert(is_same(Limit::Descriptors, Platform::Subject::Descriptors));
static_assert(is_same(Limit::OpenFiles, Platform::Subject::OpenFiles));
static_assert(static_cast<int>(Limit::Setting) == Platform::LimitCount,
              "the platform's come first");

/// A new reason in the place of the last one.
Mem_Reason& begin(Operation operation, Limit limit, std::uint64_t wanted) noexcept
{
    const std::uint64_t number = last_reason->number + 1;
    *last_reason = {};
    last_reason->operation = operation;
    last_reason->limit = limit;
    last_reason->wanted = wanted;
    last_reason->number = number;
    return *last_reason;
}

} // namespace

void Refuse(Operation operation, Limit limit, const char* text, std::uint64_t wanted) noexcept
{
    begin(operation, limit, wanted).SetText(text);
}

void Refuse(Operation operation, const Mem_Limits& limits, std::uint64_t wanted) noexcept
{
    limits.Explain(begin(operation, Limit::Unknown, wanted));
}

void RefuseWhole(Operation operation, std::uint64_t wanted) noexcept
{
    last_reason->operation = operation;
    last_reason->wanted = wanted;
}

int RefuseEmptyHandle(Operation operation) noexcept
{
    Refuse(operation, Limit::Request, "the handle is empty");
    return -1;
}

int RefuseAtTheEnd(Operation operation) noexcept
{
    Refuse(operation, Limit::Ended, "");
    return -1;
}

void RefuseFreedPiece() noexcept
{
    Refuse(Operation::Other, Limit::FreedPiece, "");
}

Mem_Reason Mem_Reason::Last() noexcept
{
    return *last_reason;
}

void Mem_Reason::SetText(const char* words) noexcept
{
    text[std::string_view(words).copy(text, sizeof text - 1)] = '\0';
}

void Mem_Reason::Describe(char* line, std::size_t size) const noexcept
{
    if (operation == Operation::None) {
        std::snprintf(line, size, "nothing was refused");
        return;
    }
    char bytes[48] = "";
    char code[48] = "";
    if (wanted != 0)
        std::snprintf(bytes, sizeof bytes, " of %llu bytes",
                      static_cast<unsigned long long>(wanted));
    if (error != 0)
        std::snprintf(code, sizeof code, " (system error %lu)", error);
    std::snprintf(line, size, "%s%s was refused: %s%s", text_of(operation, operation_texts), bytes,
                  text[0] != '\0' ? text : text_of(limit, limit_texts), code);
}

std::ostream& operator<<(std::ostream& out, const Mem_Reason& reason)
{
    char line[sizeof reason.text + 128];
    reason.Describe(line, sizeof line);
    return out << line;
}
