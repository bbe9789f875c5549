#ifndef MEM_SHMMHEAP_H
#define MEM_SHMMHEAP_H

#include "Mem/Mem_BlockIndex.h"
#include "Mem/Mem_BlockSpaceLogic.h"
#include "Mem/Mem_MemInfo.h"
#include "Mem/Mem_Prefetch.h"
#include "Mem/Mem_Status.h"
#include "Rw/RWCString.h"

#include <boost/intrusive/list.hpp>

#include <cstdint>
#include <iosfwd>

class ShmmHeap;

// The heaps stand between the pager and the system's backing stores. The pager asks the
// process-wide Memory_ShmmHeap for pieces. That heap carves them out of MemoryBlocks, one block
// for each region, and gets its regions from a source heap.
//
// Results are 0 for success and -1 for failure. Free() and what it calls allocate nothing.
// Allocate() may throw std::bad_alloc and has changed nothing then.
// Threads: no lock here; the pager calls with its mutex held.

/// One region, carved into chunks. Made by its heap with the first chunk and gone with the last.
class Block : public boost::intrusive::list_base_hook<>
{
public:
    Block(BaseInfo* map_info, ShmmHeap* source_heap, std::uint32_t size);
    virtual ~Block();
    Block(const Block&) = delete;
    Block& operator=(const Block&) = delete;

    /// Carves a chunk and describes it in `*result`, which belongs to the heap and ends in Free().
    /// CanAllocate(), or the block being new, has made sure of the space; -1 if there is none.
    virtual int Allocate(unsigned int size, unsigned int alignment, BaseInfo** result,
                         unsigned int always_mapped, unsigned int group_id,
                         unsigned int* actual_size);
    virtual int Allocate(unsigned int size, unsigned int alignment, BaseInfo** result);

    /// Gives the chunk of `info` back and destroys `info`. @return 0.
    /// @throws RWBoundsErr for a chunk that this block doesn't hold.
    virtual int Free(BaseInfo* info);

    /// Fetches what Free() will look at first.
    void PrefetchForFree(const Mem_MemoryChunk& chunk) const
    {
        Mem_PrefetchLines<(sizeof(Block) + 63) / 64>(this);
        m_space_logic.PrefetchForFree(chunk);
    }

    /// 0 if this block takes the request. Changes nothing but `*actual_size`.
    virtual int CanAllocate(unsigned int size, unsigned int always_mapped, unsigned int group_id,
                            unsigned int alignment, unsigned int* actual_size);
    virtual int CanAllocate(unsigned int size);

    virtual bool IsEmpty();
    virtual void PrintStatus(std::ostream& os, int detail);
    virtual bool IsUsed();

    /// The backing region, not owned.
    virtual BaseInfo* GetMapInfo() const;

    /// The sizes of chunks that this block takes, both included.
    virtual void SetChunkSizeRange(unsigned int smallest, unsigned int largest);

    /// Makes the descriptor of a new chunk of `block`.
    virtual int create_info(BaseInfo** result, unsigned int alignment, Block* block) = 0;

    /// Where the region goes when the block ends. Not owned.
    ShmmHeap* GetSourceHeapOfBlock() const { return m_source_heap; }

    void GetSpaceStatus(unsigned int* size, unsigned int* allocated,
                        unsigned int* always_mapped) const;

    /// The pager that the block was opened for; see ShmmHeap::AllocateFor().
    const void* Client() const { return m_client; }
    void SetClient(const void* client) { m_client = client; }

    /// What requests the block takes now, and what it will take once one like that has come in.
    Mem_BlockKind Kind() const
    {
        return {m_client, m_always_mapped, m_group_id, m_smallest_chunk, m_largest_chunk};
    }
    virtual Mem_BlockKind KindAfter(unsigned int size, unsigned int always_mapped,
                                    unsigned int group_id) const;

    std::uint32_t LargestFree() const { return m_space_logic.LargestFreeChunk(); }

    /// Whether the block's records hold together: null, or the first relation that is broken.
    const char* Broken() const { return m_space_logic.Broken(); }

    /// Rises from block to block of a heap.
    std::uint64_t Age() const { return m_age; }
    void SetAge(std::uint64_t age) { m_age = age; }

protected:
    friend struct Mem_TestAccess;

    /// Takes a chunk whose offset is a multiple of `offset_alignment` and describes it.
    int carve(unsigned int size, unsigned int alignment, unsigned int offset_alignment,
              BaseInfo** result, unsigned int* actual_size);

    BaseInfo* m_map_info;
    ShmmHeap* m_source_heap;
    BlockSpaceLogic m_space_logic;
    unsigned int m_largest_chunk = 0x40000000;
    unsigned int m_smallest_chunk = 0;
    unsigned int m_group_id = 0;
    unsigned int m_always_mapped = 0;

private:
    friend class Mem_BlockAges;
    friend class Mem_BlockIndex;

    const void* m_client = nullptr;
    std::uint64_t m_age = 0;
    Mem_BlockIndex::Place m_place;
};

/// A block of the memory heap. Its chunks are the clients' pieces, described by MEM_MemInfo.
class MemoryBlock : public Block
{
public:
    MemoryBlock(BaseInfo* map_info, ShmmHeap* source_heap);
    int create_info(BaseInfo** result, unsigned int alignment, Block* block) override;
};

/// What all heaps share: a list of blocks, newest first, and the choice of one for a request.
/// Owns its blocks. The process's heaps are never destroyed, since a handle in static storage can
/// give its piece back late; what they still hold at the end is left alone.
class ShmmHeap
{
public:
    ShmmHeap() = default;
    virtual ~ShmmHeap();
    ShmmHeap(const ShmmHeap&) = delete;
    ShmmHeap& operator=(const ShmmHeap&) = delete;

    /// A chunk of the first block in the list that takes the request, or of a new block. Only
    /// blocks that were opened for the same client count, so that two pagers on one heap never
    /// share a region.
    /// @return 0 with `*result`, owned by the heap; else nothing has changed and a line at level
    ///         5 tells the size.
    int AllocateFor(const void* client, unsigned int size, unsigned int alignment,
                    BaseInfo** result, unsigned int always_mapped, unsigned int group_id);

    /// The same for those who stand for no pager: they are one client, too.
    virtual int Allocate(unsigned int size, unsigned int alignment, BaseInfo** result,
                         unsigned int always_mapped, unsigned int group_id);
    virtual int Allocate(unsigned int size, unsigned int alignment, BaseInfo** result);

    /// Takes a chunk back and destroys `info`; the block's last chunk takes the block and its
    /// region along. @return 0.
    virtual int Free(BaseInfo* info);

    /// Whole MB given out, as an estimate: alignment gaps count only on the way in.
    virtual unsigned int GetSizeInMb();

    /// Writes each block and a summary. On the memory heap only.
    virtual void PrintStatus(std::ostream& os);
    virtual RWCString Name();

    /// One of the stores that a status tells of.
    using Store = Mem_StoreStatus::Store Mem_StoreStatus::*;

    /// Which of the stores a region of this heap, as a source heap, lies in: shared memory.
    virtual Store StoreOf(const BaseInfo& region) const;

    /// Makes a block of at least `size` bytes, outside the list. -1 if that can't be had.
    virtual int create_result_element(unsigned int size, Block** result, unsigned int always_mapped,
                                      unsigned int group_id) = 0;
    virtual int create_result_element(unsigned int size, Block** result) = 0;

    /// Gives a block's backing back, before the block itself goes.
    virtual int destroy_element(Block* block) = 0;

    /// Takes the blocks that there are out of use for new chunks: those of a forked child are
    /// its parent's too, who goes on carving them. What lies in them can still be freed.
    void RetireBlocks();

    /// Compares the list of blocks, their index, their chunks and the total size with each other:
    /// null, or the first relation that doesn't hold. Debug builds look after each operation.
    const char* Broken() const;

protected:
    friend struct Mem_TestAccess;

    using BlockList = boost::intrusive::list<Block>;

    BlockList m_blocks;
    Mem_BlockIndex m_index; // of the blocks that can take requests
    std::uint64_t m_next_age = 0;
    std::uint64_t m_total_size = 0;

private:
    class NewBlock;

    int take_chunk(const Mem_BlockKind& keys, unsigned int size, unsigned int alignment,
                   BaseInfo** result);
    Block* find_block(const Mem_BlockKind& keys, unsigned int size, unsigned int alignment) const;
    int open_block(const Mem_BlockKind& keys, unsigned int size, Block** result);
    int carve_from(Block& block, const Mem_BlockKind& keys, unsigned int size,
                   unsigned int alignment, BaseInfo** result);
    void close_block(Block* block);
    void check_invariants() const;

    const RWCString m_undefined = "Undefined"; // made early: reports need no memory
};

/// The heap that serves the pagers: pieces carved from regions of a source heap.
class Memory_ShmmHeap : public ShmmHeap
{
public:
    /// The process's memory heap, made at the first call.
    static Memory_ShmmHeap* GetInstance();

    int create_result_element(unsigned int size, Block** result, unsigned int always_mapped,
                              unsigned int group_id) override;
    int create_result_element(unsigned int size, Block** result) override;
    int destroy_element(Block* block) override;

    /// Adds what the regions of this heap take of each store, and what their pieces take of them.
    void Tell(Mem_StoreStatus& status) const;

private:
    friend struct Mem_TestAccess;
};

/// The heap that the next region comes from: the swap heap, or, once that has reached
/// GetSwapMaxSizeInMb() or the machine's committed memory is above
/// GetSwapFileComitAdaptiveLimitMB(), the file heap. Chosen anew for each region.
ShmmHeap* GetSourceHeap();

/// Whether `mapping_name` is that of a temp file which this process has made and not ended.
bool IsMappingOfOwnFile(const RWCString& mapping_name);

/// Retires the blocks of all heaps of the process, in a forked child.
void RetireInheritedBlocks();

#endif
