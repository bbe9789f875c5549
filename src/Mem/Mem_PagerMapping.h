#ifndef MEM_PAGERMAPPING_H
#define MEM_PAGERMAPPING_H

#include "Mem/Mem_MemInfo.h"
#include "Mem/Mem_Settings.h"
#include "Platform/Mappings.h"

/// Has the pages of a piece whose view is new found now, if the settings want that of its size.
inline void MakeSmallReady(MEM_MemInfo& piece, Platform::Mappings::Access access)
{
    if (piece.Size() <= SettingOrNone(&MEM_MemoryConfiguration::PrefetchSize))
        Platform::Mappings::Get().Prefetch(piece.Ptr(), piece.Size(), access);
}

#endif
