#include "Mem/Mem_BlockSpaceLogic.h"

#include "Mem/Mem_FirstBreak.h"
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

/// Whether a chunk is given out with bytes at that offset. No spare record is.
bool has_bytes_at(const Mem_Chunk& chunk, std::uint32_t aligned_offset)
{
    return !chunk.is_free && chunk.size != 0 && chunk.AlignedOffset() == aligned_offset;
}

std::uint32_t clamp(std::uint64_t size)
{
    return static_cast<std::uint32_t>(std::min<std::uint64_t>(size, UINT32_MAX));
}
} // namespace

BlockSpaceLogic::BlockSpaceLogic(std::uint32_t size) : m_size(size), m_free(size)
{
    keep_spare();
    Chunk& whole = take_spare();
    whole.actual_size = size;
    if (size != 0)
        m_first = &whole;
    enter_free(whole);
}

// The sets and bins go before the pool, and unlink its records.
BlockSpaceLogic::~BlockSpaceLogic() = default;

bool BlockSpaceLogic::Allocate(std::uint32_t size, Mem_MemoryChunk* chunk, std::uint32_t alignment,
                               std::uint32_t* actual_size)
{
    keep_spare(); // first, since a new-handler can run in there
    m_free.KeepBins(m_allocated_count + 1);
    Chunk* const found = const_cast<Chunk*>(find_free_chunk(size, alignment, actual_size));
    if (found == nullptr)
        return false;
    Mem_Prefetch(found->before);
    Chunk& taken = take_front(*found, *actual_size);
    taken.size = size;
    enter_allocated(taken);
    m_allocated += taken.actual_size;
    *chunk = Mem_MemoryChunk(size, taken.AlignedOffset(), &taken);
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
    Chunk* const found = leave_allocated(chunk);
    if (found == nullptr)
        RWThrow(RWBoundsErr(
            RWMessage(RWTOOL_INDEXERR(), UINT64_MAX, m_allocated_count + m_nothing.size())));
    Chunk& freed = *found;
    prefetch_neighbours(freed);
    m_allocated -= freed.actual_size;
    prefetch_bins_around(freed);
    if (Chunk* const right = free_chunk_behind(freed))
        absorb(freed, *right);
    if (Chunk* const left = free_chunk_before(freed))
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
    for (const Chunk* chunk = m_free.First(); chunk != nullptr; chunk = m_free.After(*chunk))
        os << "\tFree Chunk " << ++count << ", Size " << chunk->actual_size << ", Offset "
           << chunk->offset << '\n';
    for_each_allocated([&](const Chunk& chunk) {
        os << "\tAllocated Chunk " << ++count << ", Size " << chunk.size << ", Offset "
           << chunk.offset << '\n';
    });
    os << "\n\n";
}

void BlockSpaceLogic::SetLimits(std::uint32_t lower, std::uint32_t upper)
{
    m_lower_limit = lower;
    m_upper_limit = upper;
}

const BlockSpaceLogic::Chunk* BlockSpaceLogic::find_free_chunk(std::uint32_t size,
                                                               std::uint32_t alignment,
                                                               std::uint32_t* actual_size) const
{
    if (m_found.chunk == nullptr || m_found.size != size || m_found.alignment != alignment) {
        m_found = {nullptr, size, alignment, 0};
        m_found.chunk = search(size, alignment, &m_found.actual_size);
    }
    *actual_size = m_found.actual_size;
    return m_found.chunk;
}

const BlockSpaceLogic::Chunk* BlockSpaceLogic::search(std::uint32_t size, std::uint32_t alignment,
                                                      std::uint32_t* actual_size) const
{
    *actual_size = size;
    const Chunk* chunk = m_free.SmallestOfAtLeast(size);
    if (chunk == nullptr)
        return nullptr;
    const std::uint64_t wanted = std::uint64_t{size} + alignment_gap(chunk->offset, alignment);
    *actual_size = clamp(wanted);
    if (wanted <= chunk->actual_size)
        return chunk;
    chunk = m_free.SmallestOfAtLeast(std::uint64_t{size} + alignment);
    if (chunk != nullptr)
        *actual_size = size + alignment_gap(chunk->offset, alignment);
    return chunk;
}

/// The first free chunk, by size and age, that `borders` is true for; null if there is none.
template <class Borders>
BlockSpaceLogic::Chunk* BlockSpaceLogic::first_free(Borders borders)
{
    Chunk* chunk = m_free.First();
    while (chunk != nullptr && !borders(*chunk))
        chunk = m_free.After(*chunk);
    return chunk;
}

/// The same, of the empty ones, which stand in front of all others.
template <class Borders>
BlockSpaceLogic::Chunk* BlockSpaceLogic::empty_free(Borders borders)
{
    if (!m_free.HaveEmpty())
        return nullptr;
    Chunk* const found =
        first_free([&](const Chunk& chunk) { return chunk.actual_size != 0 || borders(chunk); });
    return found == nullptr || found->actual_size != 0 ? nullptr : found;
}

/// The free chunk that begins where `chunk` ends, an empty one first; or null.
BlockSpaceLogic::Chunk* BlockSpaceLogic::free_chunk_behind(const Chunk& chunk)
{
    const auto borders = [&](const Chunk& other) { return other.offset == chunk.End(); };
    if (chunk.actual_size == 0)
        return first_free(borders);
    Chunk* const empty = empty_free(borders);
    return empty != nullptr || chunk.behind == nullptr || !chunk.behind->is_free ? empty
                                                                                 : chunk.behind;
}

/// The free chunk that ends where `chunk` begins, an empty one first; or null.
BlockSpaceLogic::Chunk* BlockSpaceLogic::free_chunk_before(const Chunk& chunk)
{
    const auto borders = [&](const Chunk& other) { return other.End() == chunk.offset; };
    if (chunk.actual_size == 0)
        return first_free(borders);
    Chunk* const empty = empty_free(borders);
    return empty != nullptr || chunk.before == nullptr || !chunk.before->is_free ? empty
                                                                                 : chunk.before;
}

void BlockSpaceLogic::prefetch_neighbours(const Chunk& chunk)
{
    Mem_Prefetch(chunk.before);
    Mem_Prefetch(chunk.behind);
}

/// Fetches the bins of the free neighbours of `chunk`, and the bin that all of them will make.
void BlockSpaceLogic::prefetch_bins_around(const Chunk& chunk) const
{
    std::uint32_t joined = chunk.actual_size;
    for (const Chunk* const neighbour : {chunk.before, chunk.behind}) {
        if (neighbour == nullptr || !neighbour->is_free)
            continue;
        m_free.PrefetchForLeave(*neighbour);
        joined += neighbour->actual_size;
    }
    m_free.PrefetchForEnter(joined);
}

void BlockSpaceLogic::enter_free(Chunk& chunk)
{
    m_found.chunk = nullptr;
    chunk.is_free = true;
    chunk.order = ++m_clock;
    m_free.Enter(chunk);
}

void BlockSpaceLogic::leave_free(Chunk& chunk)
{
    m_found.chunk = nullptr;
    m_free.Leave(chunk);
    chunk.is_free = false;
}

void BlockSpaceLogic::enter_allocated(Chunk& chunk)
{
    const std::uint32_t offset = chunk.AlignedOffset();
    if (chunk.size == 0) {
        chunk.order = ++m_clock;
        chunk.is_ahead = find_bytes(offset) == nullptr;
        m_nothing.insert(chunk);
        return;
    }
    for (Chunk& nothing : m_nothing)
        nothing.is_ahead = nothing.is_ahead || nothing.AlignedOffset() == offset;
    ++m_allocated_count;
}

/// Takes the first chunk that was given out at that offset out of those that are allocated; null if
/// there is none.
BlockSpaceLogic::Chunk* BlockSpaceLogic::leave_allocated(const Mem_MemoryChunk& given)
{
    if (Chunk* const nothing = find_nothing(given.m_Offset)) {
        m_nothing.erase(m_nothing.iterator_to(*nothing));
        return nothing;
    }
    Chunk* const record = given.m_record;
    Chunk* const chunk = record != nullptr && has_bytes_at(*record, given.m_Offset)
                             ? record
                             : find_bytes(given.m_Offset);
    m_allocated_count -= chunk != nullptr ? 1 : 0;
    return chunk;
}

/// The chunk without bytes that was given out first at that offset, if that was before any with
/// bytes, or if there is none of those; or null.
BlockSpaceLogic::Chunk* BlockSpaceLogic::find_nothing(std::uint32_t aligned_offset)
{
    if (m_nothing.empty())
        return nullptr;
    const bool is_alone = find_bytes(aligned_offset) == nullptr;
    const auto found = std::find_if(m_nothing.begin(), m_nothing.end(), [&](const Chunk& other) {
        return other.AlignedOffset() == aligned_offset && (other.is_ahead || is_alone);
    });
    return found != m_nothing.end() ? &*found : nullptr;
}

/// The chunk with bytes at that offset; null if none has.
BlockSpaceLogic::Chunk* BlockSpaceLogic::find_bytes(std::uint32_t aligned_offset)
{
    Chunk* chunk = m_first;
    while (chunk != nullptr && !has_bytes_at(*chunk, aligned_offset))
        chunk = chunk->behind;
    return chunk;
}

/// By rising aligned offset, equals in the order in which they were given out.
template <class Visit>
void BlockSpaceLogic::for_each_allocated(Visit visit) const
{
    auto nothing = m_nothing.begin();
    for (const Chunk* chunk = m_first; chunk != nullptr; chunk = chunk->behind) {
        if (chunk->is_free || chunk->size == 0)
            continue;
        const std::uint32_t offset = chunk->AlignedOffset();
        for (; nothing != m_nothing.end() &&
               (nothing->AlignedOffset() < offset ||
                (nothing->AlignedOffset() == offset && nothing->is_ahead));
             ++nothing)
            visit(*nothing);
        visit(*chunk);
    }
    std::for_each(nothing, m_nothing.end(), visit);
}

/// Takes `size` bytes from the start of a free chunk, or all of it. keep_spare() comes first.
/// @return the record of what was taken.
BlockSpaceLogic::Chunk& BlockSpaceLogic::take_front(Chunk& chunk, std::uint32_t size)
{
    leave_free(chunk);
    if (chunk.actual_size == size)
        return chunk;
    Chunk& front = take_spare();
    front.offset = chunk.offset;
    front.actual_size = size;
    if (size != 0)
        insert_before(front, chunk);
    chunk.offset += size;
    chunk.actual_size -= size;
    enter_free(chunk);
    return front;
}

/// Joins a free neighbour to `chunk`, which stands in no set.
void BlockSpaceLogic::absorb(Chunk& chunk, Chunk& neighbour)
{
    leave_free(neighbour);
    if (neighbour.actual_size != 0) {
        if (chunk.actual_size == 0)
            replace(neighbour, chunk);
        else
            unlink(neighbour);
    }
    chunk.offset = std::min(chunk.offset, neighbour.offset);
    chunk.actual_size += neighbour.actual_size;
    give_spare(neighbour);
}

void BlockSpaceLogic::link(Chunk* before, Chunk* behind)
{
    if (before != nullptr)
        before->behind = behind;
    if (behind != nullptr)
        behind->before = before;
}

void BlockSpaceLogic::insert_before(Chunk& chunk, Chunk& behind)
{
    link(behind.before, &chunk);
    link(&chunk, &behind);
    if (m_first == &behind)
        m_first = &chunk;
}

void BlockSpaceLogic::replace(Chunk& old, Chunk& chunk)
{
    insert_before(chunk, old);
    unlink(old);
}

void BlockSpaceLogic::unlink(Chunk& chunk)
{
    if (m_first == &chunk)
        m_first = chunk.behind;
    link(chunk.before, chunk.behind);
}

/// Makes sure that take_spare() finds a record.
void BlockSpaceLogic::keep_spare()
{
    if (m_spare == nullptr)
        give_spare(m_pool.emplace_back());
}

BlockSpaceLogic::Chunk& BlockSpaceLogic::take_spare()
{
    Chunk& chunk = *m_spare;
    m_spare = chunk.next;
    chunk.before = nullptr;
    chunk.behind = nullptr;
    return chunk;
}

void BlockSpaceLogic::give_spare(Chunk& chunk)
{
    chunk.size = 0;
    chunk.next = m_spare;
    m_spare = &chunk;
}

// Check -----------------------------------------------------------------------------------------

/// What the walks of a check have counted, to be compared.
struct BlockSpaceLogic::Tally {
    std::uint64_t end = 0;       // of the latest stretch
    std::uint64_t allocated = 0; // bytes
    std::size_t free = 0;        // stretches, as the next two
    std::size_t with_bytes = 0;  // that a request of some bytes has taken
    std::size_t gaps = 0;        // that a request of 0 bytes has taken for its alignment
    std::size_t empty = 0;       // chunks of no bytes, which are no stretches
};

const char* BlockSpaceLogic::Broken() const
{
    Mem_FirstBreak check;
    Tally tally;
    check.Expect(broken_stretches(tally));
    check.Expect(tally.end == m_size, "the end of the last stretch");
    check.Expect(tally.allocated == m_allocated, "m_allocated");
    check.Expect(broken_free_chunks(tally));
    check.Expect(broken_requests_for_nothing(tally));
    check.Expect(tally.with_bytes == m_allocated_count, "m_allocated_count");
    check.Expect(m_found.chunk == nullptr || m_found.chunk->is_free, "the remembered answer");
    check.Expect(tally.free + tally.with_bytes + tally.gaps + tally.empty + count_spare() ==
                     m_pool.size(),
                 "a lost record");
    return check.What();
}

const char* BlockSpaceLogic::broken_stretches(Tally& tally) const
{
    Mem_FirstBreak check;
    const Chunk* before = nullptr;
    for (const Chunk* chunk = m_first; chunk != nullptr; chunk = chunk->behind) {
        check.Expect(chunk->before == before, "a stretch's link back");
        check.Expect(chunk->offset == tally.end, "a stretch that doesn't follow on the one before");
        check.Expect(chunk->size <= chunk->actual_size || chunk->is_free, "a chunk's size");
        tally.end += chunk->actual_size;
        tally.allocated += chunk->is_free ? 0 : chunk->actual_size;
        ++(chunk->is_free ? tally.free : chunk->size != 0 ? tally.with_bytes : tally.gaps);
        before = chunk;
    }
    return check.What();
}

const char* BlockSpaceLogic::broken_free_chunks(Tally& tally) const
{
    Mem_FirstBreak check;
    std::size_t stretches = 0;
    const Chunk* before = nullptr;
    for (const Chunk* chunk = m_free.First(); chunk != nullptr; chunk = m_free.After(*chunk)) {
        check.Expect(chunk->is_free, "an allocated chunk among the free ones");
        check.Expect(before == nullptr || Mem_FreeChunks::SmallerThenOlder()(*before, *chunk),
                     "the order of the free chunks");
        ++(chunk->actual_size != 0 ? stretches : tally.empty);
        before = chunk;
    }
    check.Expect(stretches == tally.free, "a free stretch that can't be found");
    check.Expect(m_free.Broken());
    return check.What();
}

const char* BlockSpaceLogic::broken_requests_for_nothing(Tally& tally) const
{
    Mem_FirstBreak check;
    std::size_t gaps = 0;
    for (const Chunk& chunk : m_nothing) {
        check.Expect(chunk.size == 0 && !chunk.is_free, "a chunk among the requests of 0 bytes");
        ++(chunk.actual_size != 0 ? gaps : tally.empty);
    }
    check.Expect(gaps == tally.gaps, "a gap that can't be found");
    return check.What();
}

std::size_t BlockSpaceLogic::count_spare() const
{
    std::size_t count = 0;
    for (const Chunk* chunk = m_spare; chunk != nullptr; chunk = chunk->next)
        ++count;
    return count;
}
