#ifndef MEM_STAMP_H
#define MEM_STAMP_H

#include <cstdint>

/// A number that tells when a thread has let something go: greater than all that this thread got
/// before, and than what other threads got before the system's coarse clock has moved last. As
/// long as one thread asks, nothing is written that another thread's processor looks at, and no
/// clock is read; docs/hits.md tells how. Threads: any. Allocates nothing.
std::uint64_t Mem_NextStamp() noexcept;

#endif
