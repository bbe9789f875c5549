#ifndef TESTS_MEM_TESTACCESS_H
#define TESTS_MEM_TESTACCESS_H

#include "Mem/Mem_BlockSpaceLogic.h"
#include "Mem/Mem_BlockTable.h"
#include "Mem/Mem_FifoQueue.h"
#include "Mem/Mem_MemFragmentsAllocator.h"
#include "Mem/Mem_MemPager.h"
#include "Mem/Mem_PagerRooms.h"
#include "Mem/Mem_PieceRecord.h"
#include "Mem/Mem_ShmmHeap.h"
#include "Mem/Mem_SlotTable.h"
#include "Mem/Mem_VirtualFragmentsAllocator.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

/// The tests' way to private state: a friend of every class.
struct Mem_TestAccess {
    // The cache queue.
    static std::vector<int>& Ring(MEM_FifoQueue& queue) { return queue.m_ring; }
    static std::uint32_t& WritePosition(MEM_FifoQueue& queue) { return queue.m_write.position; }
    static std::uint32_t LiveCount(const MEM_FifoQueue& queue) { return queue.m_live; }

    // The space logic.
    static auto& Stretch(BlockSpaceLogic& logic, int number)
    {
        auto* stretch = logic.m_first;
        while (number-- > 0)
            stretch = stretch->behind;
        return *stretch;
    }
    static auto& Size(BlockSpaceLogic& logic) { return logic.m_size; }
    static auto& Allocated(BlockSpaceLogic& logic) { return logic.m_allocated; }
    static auto& AllocatedCount(BlockSpaceLogic& logic) { return logic.m_allocated_count; }
    static auto& Remembered(BlockSpaceLogic& logic) { return logic.m_found.chunk; }
    static auto& Pool(BlockSpaceLogic& logic) { return logic.m_pool; }
    static auto& Free(BlockSpaceLogic& logic) { return logic.m_free; }
    static auto& Nothing(BlockSpaceLogic& logic) { return logic.m_nothing; }
    static auto& LargestChunk(BlockSpaceLogic& logic) { return logic.m_free.m_largest; }
    static auto& LargestSize(BlockSpaceLogic& logic) { return logic.m_free.m_largest_size; }
    static auto& EmptyCount(BlockSpaceLogic& logic) { return logic.m_free.m_empty; }

    // Heaps and their index.
    static auto& Space(Block& block) { return block.m_space_logic; }
    static auto& Place(Block& block) { return block.m_place; }
    static auto& Living(Block& block) { return block.m_place.ages->m_living; }
    static auto& Age(Block& block, std::size_t place) { return block.m_place.ages->m_ages[place]; }
    static auto& Most(Block& block, std::size_t node) { return block.m_place.ages->m_most[node]; }
    static std::size_t Leaf(Block& block, std::size_t place)
    {
        return block.m_place.ages->capacity() + place;
    }
    static auto& KindsOf(ShmmHeap& heap) { return heap.m_index.m_kinds; }
    static auto& BlocksOf(ShmmHeap& heap) { return heap.m_blocks; }
    static auto& TotalSize(ShmmHeap& heap) { return heap.m_total_size; }
    // Slot tables.
    template <class T, T Empty>
    static std::ptrdiff_t Segments(const Mem_SlotTable<T, Empty>& table)
    {
        return std::count_if(table.m_segments.begin(), table.m_segments.end(),
                             [](const auto& segment) { return segment != nullptr; });
    }
    static std::ptrdiff_t Segments(const MEM_FifoQueue& queue) { return Segments(queue.m_index); }

    // The pager.
    static std::unique_ptr<MEM_MemPager> MakePager(ShmmHeap* heap)
    {
        return std::unique_ptr<MEM_MemPager>(new MEM_MemPager(heap));
    }
    static WindowUnixMutex& Mutex() { return MEM_MemPager::mutex; }
    static const char* Broken(const MEM_MemPager& pager)
    {
        WindowUnixGuard lock(&MEM_MemPager::mutex);
        pager.m_rooms->views.Gather();
        return pager.m_rooms->Broken();
    }
    static const Mem_BlockTable& Blocks(MEM_MemPager& pager) FIBREX_NO_THREAD_SAFETY_ANALYSIS
    {
        return pager.m_rooms->blocks.Table();
    }
    static std::vector<int> QueueOrder(MEM_MemPager& pager) FIBREX_NO_THREAD_SAFETY_ANALYSIS
    {
        std::vector<int> order;
        pager.m_rooms->views.Gather();
        MEM_FifoQueue& queue = pager.m_rooms->views.m_cache_queue;
        for (auto at = queue.m_read; !(at == queue.m_write); at.StepForward())
            if (queue.m_ring[at.position] >= 0)
                order.push_back(queue.m_ring[at.position]);
        return order;
    }
    /// What a pager's rooms own, to be corrupted.
    static auto& ViewRoom(MEM_MemPager& pager) FIBREX_NO_THREAD_SAFETY_ANALYSIS
    {
        return pager.m_rooms->views;
    }
    static auto& BlockRoom(MEM_MemPager& pager) FIBREX_NO_THREAD_SAFETY_ANALYSIS
    {
        return pager.m_rooms->blocks;
    }
    static MEM_FifoQueue& Queue(MEM_MemPager& pager) { return ViewRoom(pager).m_cache_queue; }
    static auto& TotalMapped(MEM_MemPager& pager) { return pager.m_hits->m_mapped; }
    static auto& TotalCached(MEM_MemPager& pager) { return ViewRoom(pager).m_total_cached; }
    static auto& Ids(MEM_MemPager& pager) { return BlockRoom(pager).m_block_ids; }
    static auto& Count(MEM_MemPager& pager) { return BlockRoom(pager).m_blocks_count; }
    static auto& Length(MEM_MemPager& pager) { return BlockRoom(pager).m_blocks.m_length; }
    static auto& LocalBlocks(MEM_MemPager& pager) { return BlockRoom(pager).m_local_blocks_size; }
    static auto& LocalPieces(MEM_MemPager& pager) { return BlockRoom(pager).m_local_pieces_size; }
    static auto& ForeignBlocks(MEM_MemPager& pager)
    {
        return BlockRoom(pager).m_foreign_blocks_size;
    }
    static auto& ForeignPieces(MEM_MemPager& pager)
    {
        return BlockRoom(pager).m_foreign_pieces_size;
    }

    static std::size_t Kinds(const ShmmHeap& heap) { return heap.m_index.m_kinds.size(); }
    static bool HasNoBlocks(const ShmmHeap& heap) { return heap.m_blocks.empty(); }
    static const PagerInfoState* State(const MEM_PagerInfo& info) { return info.m_state; }

    // Fragments.
    template <class Allocator>
    static auto Fragments(const Allocator& allocator)
    {
        return std::span(allocator.fragments, allocator.fragments_num);
    }
    static std::pair<std::vector<std::size_t>, std::size_t>
    HeldAndCurrent(const Mem_MemFragmentsAllocator& allocator)
    {
        const auto& held = allocator.mapped_indexes;
        return {{held.data(), held.data() + allocator.mapped_fragments_num},
                allocator.current_mapped_index};
    }
    static std::pair<std::vector<std::size_t>, std::size_t>
    HeldAndCurrent(const Mem_VirtualFragmentsAllocator&)
    {
        return {{0}, 0};
    }
    static bool IsCurrent(const Mem_MemFragmentsAllocator& allocator,
                          const Mem_MemFragmentInfo& info)
    {
        return allocator.current_index_start == info.IndexStart &&
               allocator.current_index_end == info.IndexEnd &&
               allocator.current_ptr == info.pagerInfo.Ptr();
    }
    static bool HasLostMapping(const Mem_MemFragmentsAllocator& allocator)
    {
        return allocator.mapping_lost;
    }
    static bool HasLostMapping(const Mem_VirtualFragmentsAllocator&) { return false; }

    // Whether no other thread holds any of the library's locks.
    static bool TryAllLocks() FIBREX_NO_THREAD_SAFETY_ANALYSIS
    {
        bool all = try_lock(MEM_MemPager::mutex_vec) && try_lock(MEM_MemPager::mutex);
        for (WindowUnixMutex& stripe : MEM_PagerInfo::mutex)
            all = try_lock(stripe) && all;
        return all;
    }

private:
    static bool try_lock(WindowUnixMutex& mutex) FIBREX_NO_THREAD_SAFETY_ANALYSIS
    {
        const bool free = mutex.TryCatchMutex();
        if (free)
            mutex.ReleaseMutex();
        return free;
    }
};

#endif
