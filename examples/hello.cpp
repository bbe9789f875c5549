// The shortest use of the pager: a piece, an unmap, a map, and the end of it all.
#include "Mem/Mem_MemPager.h"

#include <cstdio>
#include <cstring>

int main()
{
    MEM_PagerInfo piece;
    if (MEM_MemPager::GetHandle()->Allocate(1000000, &piece, 0) != 0) {
        std::puts("no memory");
        return 1;
    }
    std::strcpy(static_cast<char*>(piece.Ptr()), "Hello from the pager"); // a piece is born mapped
    piece.Unmap(); // the address space may be used for others now; the content stays

    if (piece.Map() != 0) {
        std::puts("no room in the address space");
        return 1;
    }
    std::puts(static_cast<const char*>(piece.Ptr())); // may have moved: ask for Ptr() again
    piece.Unmap();
    return 0; // the last handle on a piece frees it
}
