#ifndef MEMPAGER_STATUS_H
#define MEMPAGER_STATUS_H

#include "Mem/Mem_MemPager.h"

namespace mempager
{
/// What the process's pieces, buffers and cursors hold at this moment: regions, and their views.
/// Threads: any. @throws std::bad_alloc at the first use of the library.
inline Mem_Status status()
{
    Mem_Status now;
    MEM_MemPager::GetHandle()->GetCurrentStatus(now);
    return now;
}

/// Where their memory lies, and, `with_resident`, how much of it is mapped and in physical memory:
/// that takes the system some 40 ms for each mapped GB.
/// Threads: any. @throws std::bad_alloc at the first use of the library.
inline Mem_StoreStatus stores(bool with_resident = false)
{
    Mem_StoreStatus now;
    MEM_MemPager::GetStoreStatus(now, with_resident);
    return now;
}
} // namespace mempager

#endif
