#ifndef MEM_PAGERROOMS_H
#define MEM_PAGERROOMS_H

#include "Mem/Mem_Blocks.h"
#include "Mem/Mem_FirstBreak.h"
#include "Mem/Mem_ForeignOwners.h"
#include "Mem/Mem_HugeBytes.h"
#include "Mem/Mem_MemPager.h"
#include "Mem/Mem_Notices.h"
#include "Mem/Mem_PagerCounters.h"
#include "Mem/Mem_Views.h"

/// What a pager keeps. Each room is the only writer of what belongs to it and checks itself.
struct MEM_MemPager::Rooms {
    Rooms(const MEM_MemPager* pager, Mem_Hits& hits) : views(blocks.Table(), hits), foreign(pager)
    {
    }

    /// @return what is broken first, as a text; null if all holds.
    const char* Broken() const
    {
        Mem_FirstBreak check;
        check.Expect(blocks.Broken());
        check.Expect(views.Broken());
        return check.What();
    }

    Mem_Blocks blocks;
    Mem_Views views;
    Mem_ForeignOwners foreign;
    Mem_PagerCounters counters;
    Mem_EvictionRate evictions;
    Mem_HugeBytes huge;
};

#endif
