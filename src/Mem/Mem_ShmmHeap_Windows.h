#ifndef MEM_SHMMHEAP_WINDOWS_H
#define MEM_SHMMHEAP_WINDOWS_H

#include "Mem/Mem_ShmmHeap.h"

/// A region of its own: one named mapping on the paging file. Owned by the swap heap.
///
/// States: created (no mapping), allocated (a mapping, no view), mapped (both).
class SwapMapInfo : public BaseMapInfo
{
public:
    SwapMapInfo(RWCString name, unsigned int size);

    /// Views the whole region for reading and writing. @return 0; -1 with a line at level 5.
    int Map() override;

    /// Ends the view. @return 0, also if the system refused, which a line at level 4 tells;
    /// -1 if there was no view.
    int Unmap() override;

    void* Handle() override;
    RWCString Name() override;
    RWCString MappingName() override;
    unsigned int HandleOffset() override;

    /// Makes the mapping, with its memory reserved. @return 0; -1 with a line at level 5.
    virtual int AllocateSwap();

    /// Closes the mapping. @return 0.
    virtual int FreeSwap();

private:
    friend struct Mem_TestAccess;

    void* m_handle = nullptr;
    RWCString m_name;
};

/// The normal source of regions: one request, one named mapping on the paging file. Does no
/// carving, so its list of blocks stays empty; its size is exact.
class Swap_ShmmHeap : public ShmmHeap
{
public:
    /// The process's swap heap, made at the first call, which also removes what dead processes
    /// left behind.
    static Swap_ShmmHeap* GetInstance();

    /// A region of `size` bytes or BaseBlockSize(), whichever is more, as a SwapMapInfo without a
    /// view. The other arguments play no part.
    int Allocate(unsigned int size, unsigned int alignment, BaseInfo** result,
                 unsigned int always_mapped, unsigned int group_id) override;
    int Allocate(unsigned int size, unsigned int alignment, BaseInfo** result) override;

    /// Takes a region back whose view has ended, and destroys `info`.
    int Free(BaseInfo* info) override;
    RWCString Name() override;

    // This heap has no blocks: -1.
    int create_result_element(unsigned int size, Block** result, unsigned int always_mapped,
                              unsigned int group_id) override;
    int create_result_element(unsigned int size, Block** result) override;
    int destroy_element(Block* block) override;

private:
    friend struct Mem_TestAccess;
};

#endif
