#include "Mem/Mem_Reason.h"

#include "Mem/Mem_Limits.h"
#include "Mem/Mem_Refusal.h"
#include "Platform/PerThread.h"
#include "Platform/Subject.h"

#include <cstdio>
#include <ostream>
#include <string_view>

namespace
{

using Limit = Mem_Reason::Limit;
using Operation = Mem_Reason::Operation;

PLATFORM_PER_THREAD PerThread<Mem_Reason> last_reason{{}};

const char* text_of(Operation operation)
{
    switch (operation) {
    case Operation::None:
        return "nothing";
    case Operation::Allocate:
        return "a new piece";
    case Operation::Register:
        return "a registration";
    case Operation::Map:
        return "a mapping";
    case Operation::Cache:
        return "a mapping ahead";
    case Operation::Other:
        return "a call";
    case Operation::HostAllocation:
        return "an allocation";
    }
    return "";
}

/// What is said where the limit itself has said nothing.
const char* text_of(Limit limit)
{
    switch (limit) {
    case Limit::SharedMemory:
        return "shared memory is full";
    case Limit::SharedMemoryNames:
        return "shared memory takes no more names";
    case Limit::Disk:
        return "the temp folder's disk is full";
    case Limit::DiskNames:
        return "the temp folder's disk takes no more names";
    case Limit::Quota:
        return "the user's disk quota is used up";
    case Limit::Group:
        return "the memory of the process's group is used up";
    case Limit::Machine:
        return "the machine's memory is used up";
    case Limit::Commitment:
        return "the machine promises no more memory";
    case Limit::AddressSpace:
        return "the address space is used up";
    case Limit::Maps:
        return "the process may have no more maps";
    case Limit::FileSize:
        return "the process may write no larger files";
    case Limit::Descriptors:
        return "the process may open no more files";
    case Limit::OpenFiles:
        return "the machine opens no more files";
    case Limit::Setting:
        return "a setting of the library's";
    case Limit::Memory:
        return "there is no memory left for it";
    case Limit::Request:
        return "it can't be had";
    case Limit::Descriptor:
        return "it is no good descriptor";
    case Limit::FreedPiece:
        return "the piece was freed";
    case Limit::Ended:
        return "the process is ending";
    case Limit::Unknown:
        return "the system doesn't say why";
    }
    return "";
}

constexpr bool is_same(Limit limit, Platform::Subject subject)
{
    return static_cast<int>(limit) == static_cast<int>(subject);
}
static_assert(is_same(Limit::SharedMemory, Platform::Subject::SharedMemory));
static_assert(is_same(Limit::Group, Platform::Subject::Group));
static_assert(is_same(Limit::Maps, Platform::Subject::Maps));
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
    std::snprintf(line, size, "%s%s was refused: %s%s", text_of(operation), bytes,
                  text[0] != '\0' ? text : text_of(limit), code);
}

std::ostream& operator<<(std::ostream& out, const Mem_Reason& reason)
{
    char line[sizeof reason.text + 128];
    reason.Describe(line, sizeof line);
    return out << line;
}
