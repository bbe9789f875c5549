#include "Mem/Mem_BlockSpaceLogic.h"

#include "Rw/RWBoundsErr.h"

#include <algorithm>
#include <ostream>

namespace
{
/// The way from `offset` up to the next multiple of `alignment`.
std::uint32_t alignment_gap(std::uint32_t offset, std::uint32_t alignment)
{
    const std::uint32_t excess = alignment == 0 ? 0 : offset % alignment;
    return excess == 0 ? 0 : alignment - excess;
}

std::uint32_t clamp(std::uint64_t size)
{
    return static_cast<std::uint32_t>(std::min<std::uint64_t>(size, UINT32_MAX));
}
} // namespace

BlockSpaceLogic::BlockSpaceLogic(std::uint32_t size) : m_size(size)
{
    keep_spare();
    Chunk& whole = take_spare();
    whole.actual_size = size;
    enter_free(whole);
}

// The sets go before the pool, and unlink its records.
BlockSpaceLogic::~BlockSpaceLogic() = default;

bool BlockSpaceLogic::Allocate(std::uint32_t size, Mem_MemoryChunk* chunk, std::uint32_t alignment,
                               std::uint32_t* actual_size)
{
    keep_spare(); // first, since a new-handler can run in there
    Chunk* const found = const_cast<Chunk*>(find_free_chunk(size, alignment, actual_size));
    if (found == nullptr)
        return false;
    Chunk& taken = take_front(*found, *actual_size);
    taken.size = size;
    taken.aligned_offset = taken.offset + alignment_gap(taken.offset, alignment);
    m_allocated_chunks.insert(taken);
    m_allocated += taken.actual_size;
    *chunk = Mem_MemoryChunk(size, taken.aligned_offset);
    return true;
}

bool BlockSpaceLogic::CanAllocate(std::uint32_t size, std::uint32_t alignment,
                                  std::uint32_t* actual_size) const
{
    if (size <= m_lower_limit || size > m_upper_limit)
        return false;
    return find_free_chunk(size, alignment, actual_size) != nullptr;
}

bool BlockSpaceLogic::Free(const Mem_MemoryChunk& chunk)
{
    const auto found = m_allocated_chunks.lower_bound(chunk.m_Offset);
    if (found == m_allocated_chunks.end() || found->aligned_offset != chunk.m_Offset)
        RWThrow(RWBoundsErr(RWMessage(RWTOOL_INDEXERR(), UINT64_MAX, m_allocated_chunks.size())));
    Chunk& freed = *found;
    m_allocated_chunks.erase(found);
    m_allocated -= freed.actual_size;
    if (Chunk* const right = free_chunk_from(freed.End()))
        absorb(freed, *right);
    if (Chunk* const left = free_chunk_up_to(freed.offset))
        absorb(freed, *left);
    enter_free(freed);
    return true;
}

void BlockSpaceLogic::GetStatus(std::uint32_t* size, std::uint32_t* allocated) const
{
    *size = m_size;
    *allocated = m_allocated;
}

void BlockSpaceLogic::PrintStatus(std::ostream& os) const
{
    int count = 0;
    os << "  Block space Status: size : " << (m_size >> 10)
       << "KB, allocated: " << (m_allocated >> 10) << "KB\n";
    for (const Chunk& chunk : m_free)
        os << "\tFree Chunk " << ++count << ", Size " << chunk.actual_size << ", Offset "
           << chunk.offset << '\n';
    for (const Chunk& chunk : m_allocated_chunks)
        os << "\tAllocated Chunk " << ++count << ", Size " << chunk.size << ", Offset "
           << chunk.offset << '\n';
    os << "\n\n";
}

void BlockSpaceLogic::SetLimits(std::uint32_t lower, std::uint32_t upper)
{
    m_lower_limit = lower;
    m_upper_limit = upper;
}

std::uint32_t BlockSpaceLogic::LargestFreeChunk() const
{
    return m_free.empty() ? 0 : m_free.rbegin()->actual_size;
}

const BlockSpaceLogic::Chunk* BlockSpaceLogic::find_free_chunk(std::uint32_t size,
                                                               std::uint32_t alignment,
                                                               std::uint32_t* actual_size) const
{
    *actual_size = size;
    const Chunk* chunk = smallest_of_at_least(size);
    if (chunk == nullptr)
        return nullptr;
    const std::uint64_t wanted = std::uint64_t{size} + alignment_gap(chunk->offset, alignment);
    *actual_size = clamp(wanted);
    if (wanted <= chunk->actual_size)
        return chunk;
    chunk = smallest_of_at_least(std::uint64_t{size} + alignment);
    if (chunk != nullptr)
        *actual_size = size + alignment_gap(chunk->offset, alignment);
    return chunk;
}

const BlockSpaceLogic::Chunk* BlockSpaceLogic::smallest_of_at_least(std::uint64_t size) const
{
    const auto found = m_free.lower_bound(
        size, [](const Chunk& chunk, std::uint64_t wanted) { return chunk.actual_size < wanted; });
    return found == m_free.end() ? nullptr : &*found;
}

/// The free chunk that begins at `offset`, or null.
BlockSpaceLogic::Chunk* BlockSpaceLogic::free_chunk_from(std::uint32_t offset)
{
    if (Chunk* const empty = empty_chunk_at(offset))
        return empty;
    const auto found = m_free_by_offset.find(offset);
    return found == m_free_by_offset.end() ? nullptr : &*found;
}

/// The free chunk that ends at `offset`, or null.
BlockSpaceLogic::Chunk* BlockSpaceLogic::free_chunk_up_to(std::uint32_t offset)
{
    if (Chunk* const empty = empty_chunk_at(offset))
        return empty;
    auto found = m_free_by_offset.lower_bound(offset);
    if (found == m_free_by_offset.begin())
        return nullptr;
    --found;
    return found->End() == offset ? &*found : nullptr;
}

BlockSpaceLogic::Chunk* BlockSpaceLogic::empty_chunk_at(std::uint32_t offset)
{
    const auto found = m_empty.find(offset);
    return found == m_empty.end() ? nullptr : &*found;
}

BlockSpaceLogic::OffsetSet& BlockSpaceLogic::neighbours_of(const Chunk& chunk)
{
    return chunk.actual_size == 0 ? m_empty : m_free_by_offset;
}

void BlockSpaceLogic::enter_free(Chunk& chunk)
{
    chunk.freed = ++m_clock;
    m_free.insert(chunk);
    neighbours_of(chunk).insert(chunk);
}

void BlockSpaceLogic::leave_free(Chunk& chunk)
{
    m_free.erase(m_free.iterator_to(chunk));
    OffsetSet& neighbours = neighbours_of(chunk);
    neighbours.erase(neighbours.iterator_to(chunk));
}

/// Takes `size` bytes from the start of a free chunk, or all of it. keep_spare() comes first.
/// @return the record of what was taken, which stands in no set.
BlockSpaceLogic::Chunk& BlockSpaceLogic::take_front(Chunk& chunk, std::uint32_t size)
{
    leave_free(chunk);
    if (chunk.actual_size == size)
        return chunk;
    Chunk& front = take_spare();
    front.offset = chunk.offset;
    front.actual_size = size;
    chunk.offset += size;
    chunk.actual_size -= size;
    enter_free(chunk);
    return front;
}

/// Joins a free neighbour to `chunk`, which stands in no set.
void BlockSpaceLogic::absorb(Chunk& chunk, Chunk& neighbour)
{
    leave_free(neighbour);
    chunk.offset = std::min(chunk.offset, neighbour.offset);
    chunk.actual_size += neighbour.actual_size;
    neighbour.next_spare = m_spare;
    m_spare = &neighbour;
}

/// Makes sure that take_spare() finds a record.
void BlockSpaceLogic::keep_spare()
{
    if (m_spare == nullptr)
        m_spare = &m_pool.emplace_back();
}

BlockSpaceLogic::Chunk& BlockSpaceLogic::take_spare()
{
    Chunk& chunk = *m_spare;
    m_spare = chunk.next_spare;
    return chunk;
}
