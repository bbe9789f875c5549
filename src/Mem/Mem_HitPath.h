#ifndef MEM_HITPATH_H
#define MEM_HITPATH_H

#include "Mem/Mem_Hits.h"
#include "Mem/Mem_MemInfo.h"
#include "Mem/Mem_MemPager.h"
#include "Mem/Mem_PieceRecord.h"

// What MEM_PagerInfo asks of the pager when a piece is mapped first or given back last, before it
// goes the long way by the pager's mutex. Under the handle's stripe; docs/hits.md is the protocol.

/// The block of a piece if it may be hit; null if the way leads by `mutex`.
inline RegisteredBlock* MEM_MemPager::block_to_hit(const MEM_PagerInfo& info) const
{
    const bool held_off = m_counts || s_hits_held_off != 0 || m_ended;
    return held_off ? nullptr : info.m_state->block;
}

/// @return whether the piece had a view to be held; nothing has changed if not.
inline bool MEM_MemPager::map_by_hit(MEM_PagerInfo& info)
{
    RegisteredBlock* const block = block_to_hit(info);
    if (block == nullptr || !m_hits->Hold(*block))
        return false;
    info.m_state->mem_info->UpdatePtrByBase(block->owner->Ptr());
    check_after_hit();
    return true;
}

/// @return whether the view could stay; nothing has changed if not.
inline bool MEM_MemPager::unmap_by_hit(MEM_PagerInfo& info)
{
    RegisteredBlock* const block = block_to_hit(info);
    if (block == nullptr || !m_hits->LetGo(*block))
        return false;
    info.m_state->mem_info->forget_ptr();
    check_after_hit();
    return true;
}

/// Hits change what debug builds check, but don't hold the lock that it wants.
inline void MEM_MemPager::check_after_hit() const
{
#if defined(MEMPAGER_CHECK_INVARIANTS)
    WindowUnixGuard lock(&mutex);
    check_invariants();
#endif
}

#endif
