#ifndef MEM_REFUSAL_H
#define MEM_REFUSAL_H

#include "Mem/Mem_Reason.h"

#include <cstdint>

class Mem_Limits;

// Where this thread's reason is written, by whoever refuses a call. Nothing here allocates or
// throws, and all of it lies out of the way of calls that succeed.

/// `operation` is refused for something that has no numbers; `text` says what.
[[gnu::cold]] void Refuse(Mem_Reason::Operation operation, Mem_Reason::Limit limit,
                          const char* text, std::uint64_t wanted = 0) noexcept;

/// `operation`, for `wanted` bytes, is refused for what the limits have met last.
[[gnu::cold]] void Refuse(Mem_Reason::Operation operation, const Mem_Limits& limits,
                          std::uint64_t wanted) noexcept;

/// Turns this thread's last refusal, of one step, into the refusal of the whole `operation`, for
/// `wanted` bytes. The cause stays.
[[gnu::cold]] void RefuseWhole(Mem_Reason::Operation operation, std::uint64_t wanted) noexcept;

/// `operation` is refused for an empty handle, or since the process is ending. @return -1
[[gnu::cold]] int RefuseEmptyHandle(Mem_Reason::Operation operation) noexcept;
[[gnu::cold]] int RefuseAtTheEnd(Mem_Reason::Operation operation) noexcept;

/// A call on a piece that was freed is refused.
[[gnu::cold]] void RefuseFreedPiece() noexcept;

#endif
