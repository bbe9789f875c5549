// Hunts: a library that goes on with data of its own where a program has its copy of them.
#include "Mem/Mem_MemInfo.h"
#include "Mem/Mem_MemPager.h"

int main()
{
    MEM_PagerInfo info;
    const bool done = MEM_MemPager::GetHandle()->Allocate(1, &info, 0) == 0;
    return done && BaseMapInfo::s_unique_name_id > 0 ? 0 : 1;
}
