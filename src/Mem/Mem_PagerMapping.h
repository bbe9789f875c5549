#ifndef MEM_PAGERMAPPING_H
#define MEM_PAGERMAPPING_H

#include "Mem/Mem_MemInfo.h"
#include "Mem/Mem_Settings.h"
#include "Platform/Mappings.h"

/// Has the pages of a piece whose view is new found now, if the settings want that of its size: to
/// write as `writing` says, since that is dear otherwise, or to read if it can't be written to.
inline void MakeSmallReady(MEM_MemInfo& piece, Platform::Mappings::Access writing)
{
    const auto access = piece.Local() ? writing : Platform::Mappings::Access::Read;
    if (piece.Size() <= SettingOrNone(&MEM_MemoryConfiguration::PrefetchSize))
        Platform::Mappings::Get().Prefetch(piece.Ptr(), piece.Size(), access);
}

#endif
