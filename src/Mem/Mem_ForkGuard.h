#ifndef MEM_FORKGUARD_H
#define MEM_FORKGUARD_H

#include "Fibrex/WindowUnixMutex.h"

#include <bitset>
#include <cstddef>
#include <span>

/// Takes the library's locks around a fork, so that a child of a process with several threads
/// finds the tables whole and the locks free.
///
/// The thread that forks may hold some of the locks, in a guard or in the log's sink. A lock that
/// another thread holds, while that thread waits for one of ours, is made anew in the child, where
/// that thread isn't.
///
/// Threads: its three functions run in the thread that forks, one fork at a time, since the last
/// lock is held in between. Constant-initialised: a fork may come before any constructor has run.
class Mem_ForkGuard
{
public:
    static constexpr std::size_t kMostStripes = 64;

    /// The locks in the order in which operations take them: that of operations on vectors of
    /// handles, the handles' stripes, that of the pagers. They must live for ever.
    constexpr Mem_ForkGuard(WindowUnixMutex& vectors, std::span<WindowUnixMutex> stripes,
                            WindowUnixMutex& pagers)
        : m_vectors(vectors), m_stripes(stripes), m_pagers(pagers)
    {
    }

    void Before();
    void AfterInParent();

    /// Makes anew what was another thread's; AfterInParent() has to follow.
    /// @return whether the lock of vector operations was this thread's to keep.
    bool InChild();

private:
    friend struct Mem_TestAccess;

    WindowUnixMutex& m_vectors;
    std::span<WindowUnixMutex> m_stripes;
    WindowUnixMutex& m_pagers;
    bool m_took_vectors = false;
    std::bitset<kMostStripes> m_took_stripe;
};

#endif
