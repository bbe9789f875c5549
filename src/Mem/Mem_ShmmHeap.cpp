#include "Mem/Mem_ShmmHeap.h"

#include "Mem/Mem_Configuration.h"
#include "Mem/Mem_FirstBreak.h"
#include "Mem/Mem_Leftovers.h"
#include "Mem/Mem_Limits.h"
#include "Mem/Mem_Notices.h"
#include "Mem/Mem_ShmmHeap_Windows.h"
#include "Mem/Mem_TempFolder.h"
#include "NRVlog/Zor_Log.h"
#include "Platform/Inspection.h"
#include "Platform/Process.h"
#include "Platform/Units.h"

#include <cassert>
#include <memory>
#include <ostream>

Block::Block(BaseInfo* map_info, ShmmHeap* source_heap, std::uint32_t size)
    : m_map_info(map_info), m_source_heap(source_heap), m_space_logic(size)
{
}

Block::~Block() = default;

int Block::Allocate(unsigned int size, unsigned int alignment, BaseInfo** result,
                    unsigned int always_mapped, unsigned int group_id, unsigned int* actual_size)
{
    const Mem_BlockKind kind = KindAfter(size, always_mapped, group_id);
    const int failure = carve(size, alignment, alignment, result, actual_size);
    if (failure != 0)
        return failure;
    SetChunkSizeRange(kind.smallest, kind.largest);
    m_always_mapped = always_mapped;
    m_group_id = group_id;
    return 0;
}

int Block::carve(unsigned int size, unsigned int alignment, unsigned int offset_alignment,
                 BaseInfo** result, unsigned int* actual_size)
{
    BaseInfo* info = nullptr;
    if (create_info(&info, alignment, this) != 0)
        return -1;
    std::unique_ptr<BaseInfo> owned(info);
    Mem_MemoryChunk chunk;
    if (!m_space_logic.Allocate(size, &chunk, offset_alignment, actual_size))
        return -1;
    owned->SetChunk(chunk);
    *result = owned.release();
    return 0;
}

int Block::Allocate(unsigned int size, unsigned int alignment, BaseInfo** result)
{
    unsigned int actual_size = 0;
    return Allocate(size, alignment, result, 0, 0, &actual_size);
}

Mem_BlockKind Block::KindAfter(unsigned int size, unsigned int always_mapped,
                               unsigned int group_id) const
{
    const unsigned int threshold = MEM_MemoryConfiguration::GetInstance()->BlockSizeThreshold();
    if (size < threshold)
        return {m_client, always_mapped, group_id, 0, threshold};
    return {m_client, always_mapped, group_id, threshold, m_largest_chunk};
}

int Block::Free(BaseInfo* info)
{
    m_space_logic.Free(info->GetChunk());
    delete info;
    return 0;
}

int Block::CanAllocate(unsigned int size, unsigned int always_mapped, unsigned int group_id,
                       unsigned int alignment, unsigned int* actual_size)
{
    if (always_mapped != m_always_mapped || group_id != m_group_id)
        return -1;
    if (size < m_smallest_chunk || size > m_largest_chunk)
        return -1;
    return m_space_logic.CanAllocate(size, alignment, actual_size) ? 0 : -1;
}

int Block::CanAllocate(unsigned int size)
{
    unsigned int actual_size = 0;
    return CanAllocate(size, 0, 0, 0, &actual_size);
}

bool Block::IsEmpty()
{
    return !m_space_logic.IsUsed();
}

void Block::PrintStatus(std::ostream& os, int detail)
{
    os << " group_id: " << m_group_id << " always mapped: " << m_always_mapped << '\n';
    if (detail >= 1)
        m_space_logic.PrintStatus(os);
}

bool Block::IsUsed()
{
    return m_space_logic.IsUsed();
}

BaseInfo* Block::GetMapInfo() const
{
    return m_map_info;
}

void Block::SetChunkSizeRange(unsigned int smallest, unsigned int largest)
{
    m_smallest_chunk = smallest;
    m_largest_chunk = largest;
}

void Block::GetSpaceStatus(unsigned int* size, unsigned int* allocated,
                           unsigned int* always_mapped) const
{
    m_space_logic.GetStatus(size, allocated);
    *always_mapped = m_always_mapped;
}

MemoryBlock::MemoryBlock(BaseInfo* map_info, ShmmHeap* source_heap)
    : Block(map_info, source_heap, map_info->Size())
{
}

int MemoryBlock::create_info(BaseInfo** result, unsigned int alignment, Block* block)
{
    // A memory heap's regions are mappable: its source heaps promise that.
    *result = new MEM_MemInfo(static_cast<BaseMapInfo*>(m_map_info), alignment, block);
    return 0;
}

ShmmHeap::~ShmmHeap() = default;

/// Ends a block that was just opened, unless its first chunk came to be.
class ShmmHeap::NewBlock
{
public:
    NewBlock(ShmmHeap& heap, Block* block) : m_heap(heap), m_block(block) {}
    ~NewBlock()
    {
        if (m_block->IsEmpty())
            m_heap.close_block(m_block);
    }
    NewBlock(const NewBlock&) = delete;
    NewBlock& operator=(const NewBlock&) = delete;

private:
    ShmmHeap& m_heap;
    Block* const m_block;
};

int ShmmHeap::AllocateFor(const void* client, unsigned int size, unsigned int alignment,
                          BaseInfo** result, unsigned int always_mapped, unsigned int group_id)
{
    const Mem_BlockKind keys{client, always_mapped, group_id, 0, 0};
    const int failure = take_chunk(keys, size, alignment, result);
    check_invariants();
    return failure;
}

int ShmmHeap::Allocate(unsigned int size, unsigned int alignment, BaseInfo** result,
                       unsigned int always_mapped, unsigned int group_id)
{
    return AllocateFor(nullptr, size, alignment, result, always_mapped, group_id);
}

int ShmmHeap::Allocate(unsigned int size, unsigned int alignment, BaseInfo** result)
{
    return Allocate(size, alignment, result, 0, 0);
}

int ShmmHeap::take_chunk(const Mem_BlockKind& keys, unsigned int size, unsigned int alignment,
                         BaseInfo** result)
{
    Block* block = find_block(keys, size, alignment);
    if (block != nullptr)
        return carve_from(*block, keys, size, alignment, result);
    const int failure = open_block(keys, size, &block);
    if (failure != 0)
        return failure;
    const NewBlock unless_empty(*this, block);
    return carve_from(*block, keys, size, alignment, result);
}

Block* ShmmHeap::find_block(const Mem_BlockKind& keys, unsigned int size,
                            unsigned int alignment) const
{
    Block* block = m_index.NewestFor(keys, size, UINT64_MAX);
    unsigned int actual_size = 0;
    while (block != nullptr && block->CanAllocate(size, keys.always_mapped, keys.group_id,
                                                  alignment, &actual_size) != 0)
        block = m_index.NewestFor(keys, size, block->Age());
    return block;
}

int ShmmHeap::open_block(const Mem_BlockKind& keys, unsigned int size, Block** result)
{
    const int failure = create_result_element(size, result, keys.always_mapped, keys.group_id);
    if (failure != 0) {
        ZOR_LOG("ShmmHeap::Allocate", 5,
                "ShmmHeap::Allocate(), create_result_element() failed with size=%d\n",
                static_cast<int>(size));
        return failure;
    }
    (*result)->SetClient(keys.client);
    (*result)->SetAge(++m_next_age);
    m_blocks.push_front(**result);
    return 0;
}

int ShmmHeap::carve_from(Block& block, const Mem_BlockKind& keys, unsigned int size,
                         unsigned int alignment, BaseInfo** result)
{
    const Mem_BlockKind kind = block.KindAfter(size, keys.always_mapped, keys.group_id);
    const Mem_BlockIndex::Entry entry(m_index, block, kind);
    unsigned int actual_size = 0;
    const int failure =
        block.Allocate(size, alignment, result, keys.always_mapped, keys.group_id, &actual_size);
    if (failure != 0)
        return failure;
    m_total_size += actual_size;
    // The block has asked for the threshold once more, and that may have changed.
    block.SetChunkSizeRange(kind.smallest, kind.largest);
    entry.Settle(block);
    return 0;
}

int ShmmHeap::Free(BaseInfo* info)
{
    m_total_size -= info->Size();
    Block* const block = info->OwnerBlock();
    block->Free(info);
    if (block->IsEmpty())
        close_block(block);
    else
        Mem_BlockIndex::Update(*block);
    check_invariants();
    return 0;
}

void ShmmHeap::close_block(Block* block)
{
    m_blocks.erase(m_blocks.iterator_to(*block));
    m_index.Leave(*block);
    destroy_element(block);
    delete block;
}

void ShmmHeap::RetireBlocks()
{
    static const char nobody = 0;
    for (Block& block : m_blocks) {
        block.SetClient(&nobody);
        m_index.Leave(block);
    }
}

const char* ShmmHeap::Broken() const
{
    Mem_FirstBreak check;
    std::uint64_t allocated = 0;
    std::uint64_t newer = m_next_age + 1;
    std::size_t known = 0;
    for (const Block& block : m_blocks) {
        unsigned int size = 0;
        unsigned int used = 0;
        unsigned int always_mapped = 0;
        block.GetSpaceStatus(&size, &used, &always_mapped);
        allocated += used;
        known += m_index.Knows(block) ? 1 : 0;
        check.Expect(used != 0, "a block without chunks");
        check.Expect(block.Age() < newer, "the order of the blocks");
        check.Expect(block.Broken());
        newer = block.Age();
    }
    check.Expect(m_index.Broken());
    check.Expect(m_index.Count() == known, "a block in the index that isn't in the list");
    check.Expect(allocated <= m_total_size, "m_total_size");
    return check.What();
}

void ShmmHeap::check_invariants() const
{
#if defined(MEMPAGER_CHECK_INVARIANTS)
    assert(Broken() == nullptr);
#endif
}

unsigned int ShmmHeap::GetSizeInMb()
{
    return static_cast<unsigned int>(WholeMb(m_total_size));
}

RWCString ShmmHeap::Name()
{
    return m_undefined;
}

ShmmHeap::Store ShmmHeap::StoreOf(const BaseInfo&) const
{
    return &Mem_StoreStatus::shared_memory;
}

namespace
{
/// Sums over the blocks of one kind, in bytes.
struct Usage {
    std::uint64_t size = 0;
    std::uint64_t allocated = 0;

    void Print(std::ostream& os, const char* kind) const
    {
        os << kind << InMb(size) << "MB "
           << "total use: " << InMb(allocated) << "MB "
           << " not used:  " << InMb(size - allocated) << '\n';
    }
};
} // namespace

void ShmmHeap::PrintStatus(std::ostream& os)
{
    os << "\n\n------------------- ShmmHeap::PrintStatus()---------------\n";
    Usage fix;
    Usage non_fix;
    for (Block& block : m_blocks) {
        os << " Block Info:"
           << "\n Source heap: " << block.GetSourceHeapOfBlock()->Name() << '\n';
        block.PrintStatus(os, 1);

        unsigned int size = 0;
        unsigned int allocated = 0;
        unsigned int always_mapped = 0;
        block.GetSpaceStatus(&size, &allocated, &always_mapped);
        Usage& kind = always_mapped != 0 ? fix : non_fix;
        kind.size += size;
        kind.allocated += allocated;
    }
    os << "usage summery\n"
       << "\n Source heap: " << Name() << '\n';
    fix.Print(os, "    fix block total size     ");
    non_fix.Print(os, "    non fix block total size ");
}

Memory_ShmmHeap* Memory_ShmmHeap::GetInstance()
{
    static auto* const heap = new Memory_ShmmHeap;
    return heap;
}

namespace
{
/// Null until the first region.
Windows_File_ShmmHeap* the_file_heap = nullptr;

/// What removes leftovers. The folder of mappings comes last: a link there is removed only once the
/// temp file that it leads to is gone.
Mem_CleanUp& clean_up()
{
    static auto* const spare_regions = new Mem_LeftRegions(TempFolder());
    static auto* const regions = new Mem_LeftRegions(Platform::Inspection::Get().MappingFolder());
    static auto* const all = new Mem_CleanUp(the_file_heap->TempFiles(), *spare_regions, *regions);
    return *all;
}

/// The file heap, made at the first call, which also begins to remove what dead processes have left
/// behind.
ShmmHeap* first_file_heap()
{
    the_file_heap = Windows_File_ShmmHeap::GetInstance();
    clean_up().Begin();
    return the_file_heap;
}
} // namespace

int Memory_ShmmHeap::create_result_element(unsigned int size, Block** result,
                                           unsigned int always_mapped, unsigned int group_id)
{
    ShmmHeap* const source = GetSourceHeap();
    BaseInfo* region = nullptr;
    int failure = source->Allocate(size, 0, &region, always_mapped, group_id);
    if (failure != 0 && RegionLimits.IsFull() && clean_up().MakeSpace())
        failure = source->Allocate(size, 0, &region, always_mapped, group_id);
    if (failure != 0)
        return failure;
    RegionLimits.Ended();
    if (source->StoreOf(*region) != &Mem_StoreStatus::shared_memory)
        Mem_Notices::Spilled(region->Size());
    try {
        *result = new MemoryBlock(region, source);
    } catch (...) {
        source->Free(region);
        throw;
    }
    return 0;
}

int Memory_ShmmHeap::create_result_element(unsigned int size, Block** result)
{
    return create_result_element(size, result, 0, 0);
}

int Memory_ShmmHeap::destroy_element(Block* block)
{
    auto* const region = static_cast<BaseMapInfo*>(block->GetMapInfo());
    ShmmHeap* const source = block->GetSourceHeapOfBlock();
    region->Unmap();
    const unsigned int size = region->Size();
    const int result = source->Free(region);
    ZOR_LOG("Memory_ShmmHeap::destroy_element", 7,
            "Destroyed %d bytes in <%s>. Current Shmm size is %d Mb.\n", static_cast<int>(size),
            source->Name().data(), static_cast<int>(source->GetSizeInMb()));
    return result;
}

/// Temp files are taken as wholes, so what regions take of them isn't what they take of the disk.
void Memory_ShmmHeap::Tell(Mem_StoreStatus& status) const
{
    for (const Block& block : m_blocks) {
        unsigned int size = 0;
        unsigned int used = 0;
        unsigned int always_mapped = 0;
        block.GetSpaceStatus(&size, &used, &always_mapped);
        Mem_StoreStatus::Store& store =
            status.*block.GetSourceHeapOfBlock()->StoreOf(*block.GetMapInfo());
        store.reserved += size;
        store.used += used;
    }
    status.temp_files.reserved = the_file_heap != nullptr ? the_file_heap->BytesOfFiles() : 0;
}

namespace
{
bool too_much_is_committed(unsigned int limit)
{
    return limit != 0 && WholeMb(Platform::Process::Get().MemoryNow().committed) > limit;
}
} // namespace

ShmmHeap* GetSourceHeap()
{
    static ShmmHeap* const swap_heap = Swap_ShmmHeap::GetInstance();
    static ShmmHeap* const file_heap = first_file_heap();
    clean_up().GoOn();
    MEM_MemoryConfiguration* const settings = MEM_MemoryConfiguration::GetInstance();
    if (swap_heap->GetSizeInMb() >= settings->GetSwapMaxSizeInMb())
        return file_heap;
    return too_much_is_committed(settings->GetSwapFileComitAdaptiveLimitMB()) ? file_heap
                                                                              : swap_heap;
}

bool IsMappingOfOwnFile(const RWCString& mapping_name)
{
    return the_file_heap != nullptr && the_file_heap->HasMapping(mapping_name);
}

void RetireInheritedBlocks()
{
    Memory_ShmmHeap::GetInstance()->RetireBlocks();
    if (the_file_heap != nullptr)
        the_file_heap->RetireBlocks();
}
