#ifndef MEM_PREFETCH_H
#define MEM_PREFETCH_H

#include <cstddef>

/// Has the processor fetch the cache line at `at`, which will be changed soon. Any address will do,
/// null included; nothing else happens.
inline void Mem_Prefetch(const void* at)
{
    __builtin_prefetch(at, 1);
}

/// The same for the `Lines` lines from `at` on.
template <std::size_t Lines>
inline void Mem_PrefetchLines(const void* at)
{
    for (std::size_t line = 0; line < Lines; ++line)
        Mem_Prefetch(static_cast<const char*>(at) + 64 * line);
}

#endif
