#ifndef MEM_LOCKSBYHAND_H
#define MEM_LOCKSBYHAND_H

#include "Fibrex/WindowUnixMutex.h"

// Mutexes that are chosen at run time, from an array or by what a thread holds already. The
// compiler's analysis follows only mutexes that are named where they are taken, so it is told
// nothing of these: whoever uses them has to see to it that each is released.

inline void TakeByHand(WindowUnixMutex& mutex) FIBREX_NO_THREAD_SAFETY_ANALYSIS
{
    mutex.CatchMutex();
}

/// @return whether the mutex was to be had without waiting.
inline bool TryByHand(WindowUnixMutex& mutex) FIBREX_NO_THREAD_SAFETY_ANALYSIS
{
    return mutex.TryCatchMutex();
}

inline void ReleaseByHand(WindowUnixMutex& mutex) FIBREX_NO_THREAD_SAFETY_ANALYSIS
{
    mutex.ReleaseMutex();
}

#endif
