#include "Mem/Mem_FifoQueue.h"

#include "NRVlog/Zor_Log.h"
#include "Rw/RWBoundsErr.h"

#include <algorithm>
#include <climits>
#include <new>

namespace
{
constexpr std::uint32_t kFirstCapacity = 1024;
constexpr int kHole = -1;

/// The slots that a ring can come to have with so many ids in it. Repack() grows a ring of C slots
/// only while C < 1.5 * ids, to at most 1.5 * C, hence to less than 2.25 * ids. The last two terms
/// are far above what single precision can add when it rounds.
std::size_t largest_ring(std::size_t ids)
{
    return 2 * ids + ids / 4 + ids / 1024 + 1;
}
} // namespace

MEM_FifoQueue::MEM_FifoQueue()
    : m_write{0, kFirstCapacity}, m_read{0, kFirstCapacity}, m_ring(kFirstCapacity, kHole)
{
}

MEM_FifoQueue::~MEM_FifoQueue() = default;

void MEM_FifoQueue::Reserve(int id)
{
    if (m_index.IsReserved(id))
        return;
    reserve_ring(std::size_t{m_reserved} + 1);
    m_index.Reserve(id);
    ++m_reserved;
}

void MEM_FifoQueue::Release(int id)
{
    if (!m_index.IsReserved(id))
        return;
    Remove(id);
    m_index.Release(id);
    --m_reserved;
}

void MEM_FifoQueue::Push(int id)
{
    Reserve(id); // first, since a new-handler can empty the queue in there
    if (is_youngest(id))
        return;
    slot(m_write.position) = id;
    Remove(id);
    m_index.Set(id, static_cast<int>(m_write.position));
    ++m_live;
    m_write.StepForward();
    if (m_write == m_read)
        Repack();
}

bool MEM_FifoQueue::Remove(int id)
{
    const int position = m_index.Get(id);
    if (!erase_from_index(id))
        return false;
    slot(static_cast<std::uint32_t>(position)) = kHole;
    return true;
}

int MEM_FifoQueue::Pop()
{
    while (!(m_read == m_write)) {
        const int id = slot(m_read.position);
        m_read.StepForward();
        if (id == kHole)
            continue;
        erase_from_index(id);
        return id;
    }
    return -1;
}

int MEM_FifoQueue::Youngest()
{
    for (Cursor youngest = m_write; !(youngest == m_read); m_write = youngest) {
        youngest.StepBack();
        if (const int id = slot(youngest.position); id != kHole)
            return id;
    }
    return kHole;
}

void MEM_FifoQueue::Clear()
{
    for (; !(m_read == m_write); m_read.StepForward())
        erase_from_index(slot(m_read.position));
    m_read.position = 0;
    m_write.position = 0;
}

bool MEM_FifoQueue::Contains(int id) const
{
    return m_index.Get(id) != kHole;
}

bool MEM_FifoQueue::Validate() const
{
    for (Cursor at = m_read; !(at == m_write); at.StepForward()) {
        const int id = slot(at.position);
        if (id == kHole)
            continue;
        if (m_index.Get(id) != static_cast<int>(at.position)) {
            ZOR_LOG("MEM_FifoQueue::Validate", 7, "map points to wrong location\n");
            return false;
        }
    }
    return true;
}

int& MEM_FifoQueue::slot(std::uint32_t position)
{
    return const_cast<int&>(std::as_const(*this).slot(position));
}

const int& MEM_FifoQueue::slot(std::uint32_t position) const
{
    if (position >= m_ring.size())
        refuse(position);
    return m_ring[position];
}

void MEM_FifoQueue::refuse(std::uint32_t position) const
{
    RWThrow(RWBoundsErr(RWMessage(RWTOOL_INDEX(), position, m_ring.size())));
}

/// The larger ring is whole before the old one is touched, see Reserve().
void MEM_FifoQueue::reserve_ring(std::size_t ids)
{
    const std::size_t wanted = largest_ring(ids);
    if (wanted <= m_ring.capacity())
        return;
    if (wanted > INT_MAX) // the index stores positions as int
        throw std::bad_alloc();
    std::vector<int> larger;
    larger.reserve(std::max(wanted, m_ring.capacity() + m_ring.capacity() / 2));
    larger.assign(m_ring.begin(), m_ring.end());
    m_ring.swap(larger);
}

bool MEM_FifoQueue::is_youngest(int id) const
{
    Cursor youngest = m_write;
    youngest.StepBack();
    return !(m_read == m_write) && slot(youngest.position) == id;
}

bool MEM_FifoQueue::erase_from_index(int id)
{
    if (!Contains(id))
        return false;
    m_index.Set(id, kHole);
    --m_live;
    return true;
}

std::uint32_t MEM_FifoQueue::repacked_capacity() const
{
    const bool crowded = m_live * 1.5 > static_cast<double>(m_ring.size());
    return static_cast<std::uint32_t>(static_cast<float>(m_ring.size()) * (crowded ? 1.5F : 1.0F));
}

/// Squeezes a ring that is full from end to end: all slots are entries or holes. It stays inside
/// the capacity that Reserve() set aside, so it can't fail.
void MEM_FifoQueue::Repack()
{
    const std::uint32_t capacity = repacked_capacity();
    std::rotate(m_ring.begin(), m_ring.begin() + m_read.position, m_ring.end());
    std::erase_if(m_ring, [](int id) { return id < 0; });
    m_read = {0, capacity};
    m_write = {static_cast<std::uint32_t>(m_ring.size()), capacity};
    m_ring.resize(capacity, kHole);
    for (std::uint32_t position = 0; position < m_write.position; ++position)
        m_index.Set(m_ring[position], static_cast<int>(position));
}
