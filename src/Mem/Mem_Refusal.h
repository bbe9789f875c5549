#ifndef MEM_REFUSAL_H
#define MEM_REFUSAL_H

#include "Mem/Mem_Reason.h"

#include <cstdint>

class Mem_Limits;

// Where this thread's reason is written, by whoever refuses a call. Nothing here allocates or
// throws.

/// `operation` is refused for something that has no numbers; `text` says what.
void Refuse(Mem_Reason::Operation operation, Mem_Reason::Limit limit, const char* text,
            std::uint64_t wanted = 0) noexcept;

/// `operation`, for `wanted` bytes, is refused for what the limits have met last.
void Refuse(Mem_Reason::Operation operation, const Mem_Limits& limits,
            std::uint64_t wanted) noexcept;

/// What was refused last was a part of `operation`, for `wanted` bytes, which is refused for it.
void RefuseWhole(Mem_Reason::Operation operation, std::uint64_t wanted) noexcept;

#endif
