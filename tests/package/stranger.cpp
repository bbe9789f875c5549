// Fails to build if the package misses a header or an exported symbol that clients use, or takes
// names that are theirs.
#include "Mem/Mem_Configuration.h"
#include "Mem/Mem_MemPager.h"
#include "mempager/mempager.h"

enum class Block { Mine };
enum class BaseInfo { Mine };

int main()
{
    MEM_MemoryConfiguration::GetInstance()->SetCacheSize(16);
    MEM_PagerInfo piece;
    if (MEM_MemPager::GetHandle()->Allocate(4096, &piece, 0) != 0)
        return 1;
    *static_cast<char*>(piece.Ptr()) = 1;
    const MEM_PagerInfo copy(&piece, MEM_MemPager::GetHandle());
    return piece.Unmap() == 0 && copy.IsValid() ? 0 : 1;
}
