#include "Mem/Mem_BlockIndex.h"

#include "Mem/Mem_FirstBreak.h"
#include "Mem/Mem_ShmmHeap.h"

#include <algorithm>
#include <bit>
#include <utility>

// The tree holds one more than each block's largest free chunk, so that 0 is a place without a
// block.

void Mem_BlockAges::Reserve()
{
    if (m_end < capacity())
        return;
    const std::size_t places = std::bit_ceil(2 * m_living + 1);
    Mem_BlockAges larger;
    larger.m_blocks.resize(places);
    larger.m_ages.resize(places);
    larger.m_most.resize(2 * places);
    for (std::size_t number = 0; number < m_end; ++number)
        if (m_blocks[number] != nullptr)
            larger.append(*m_blocks[number], m_most[capacity() + number]);
    std::swap(*this, larger);
}

void Mem_BlockAges::Enter(Block& block)
{
    block.m_place.ages = this;
    append(block, std::uint64_t{block.LargestFree()} + 1);
    // A block that changes its kind can be older than others that are here.
    for (std::size_t number = m_end - 1; number > 0 && m_ages[number - 1] > m_ages[number];
         --number)
        exchange(number - 1, number);
}

void Mem_BlockAges::Leave(Block& block)
{
    m_blocks[block.m_place.number] = nullptr;
    set_most(block.m_place.number, 0);
    --m_living;
    block.m_place = {};
}

void Mem_BlockAges::Update(const Block& block)
{
    set_most(block.m_place.number, std::uint64_t{block.LargestFree()} + 1);
}

Block* Mem_BlockAges::NewestWith(std::uint32_t size, std::uint64_t age) const
{
    const std::uint64_t most = std::uint64_t{size} + 1;
    if (m_end == 0 || m_most[1] < most)
        return nullptr;
    if (m_ages[m_end - 1] < age) // all are older
        return m_blocks[last_with(most)];
    const auto end = m_ages.begin() + static_cast<std::ptrdiff_t>(m_end);
    const auto older = std::lower_bound(m_ages.begin(), end, age) - m_ages.begin();
    const std::size_t found = last_before(static_cast<std::size_t>(older), most, 1, 0, capacity());
    return found == kNone ? nullptr : m_blocks[found];
}

void Mem_BlockAges::append(Block& block, std::uint64_t most)
{
    const std::size_t number = m_end++;
    m_blocks[number] = &block;
    m_ages[number] = block.Age();
    block.m_place.number = number;
    ++m_living;
    set_most(number, most);
}

void Mem_BlockAges::exchange(std::size_t one, std::size_t other)
{
    const std::uint64_t most_of_one = m_most[capacity() + one];
    set_most(one, m_most[capacity() + other]);
    set_most(other, most_of_one);
    std::swap(m_ages[one], m_ages[other]);
    std::swap(m_blocks[one], m_blocks[other]);
    for (const std::size_t number : {one, other})
        if (m_blocks[number] != nullptr)
            m_blocks[number]->m_place.number = number;
}

void Mem_BlockAges::set_most(std::size_t number, std::uint64_t most)
{
    std::size_t node = capacity() + number;
    if (m_most[node] == most)
        return;
    m_most[node] = most;
    while (node > 1) {
        node /= 2;
        const std::uint64_t greater = std::max(m_most[2 * node], m_most[2 * node + 1]);
        if (m_most[node] == greater)
            return;
        m_most[node] = greater;
    }
}

/// The last place that has `most` or more. There is one.
std::size_t Mem_BlockAges::last_with(std::uint64_t most) const
{
    std::size_t node = 1;
    while (node < capacity()) {
        const std::size_t newer = 2 * node + 1;
        node = m_most[newer] >= most ? newer : newer - 1;
    }
    return node - capacity();
}

/// The last place before `end` that has `most` or more, of the `count` from `first` on that are
/// under `node`.
std::size_t Mem_BlockAges::last_before(std::size_t end, std::uint64_t most, std::size_t node,
                                       std::size_t first, std::size_t count) const
{
    if (first >= end || m_most[node] < most)
        return kNone;
    if (count == 1)
        return first;
    const std::size_t half = count / 2;
    const std::size_t newer = last_before(end, most, 2 * node + 1, first + half, half);
    return newer != kNone ? newer : last_before(end, most, 2 * node, first, half);
}

const char* Mem_BlockAges::Broken(const Mem_BlockKind& kind) const
{
    Mem_FirstBreak check;
    std::size_t living = 0;
    for (std::size_t number = 0; number < m_end; ++number) {
        check.Expect(number == 0 || m_ages[number - 1] <= m_ages[number], "the order of ages");
        check.Expect(broken_place(number, kind));
        living += m_blocks[number] != nullptr ? 1 : 0;
    }
    check.Expect(broken_tree());
    check.Expect(living == m_living, "m_living");
    return check.What();
}

const char* Mem_BlockAges::broken_place(std::size_t number, const Mem_BlockKind& kind) const
{
    Mem_FirstBreak check;
    const std::uint64_t most = m_most[capacity() + number];
    const Block* const block = m_blocks[number];
    if (block == nullptr) {
        check.Expect(most == 0, "a free chunk where a block has left");
        return check.What();
    }
    check.Expect(block->m_place.ages == this && block->m_place.number == number,
                 "a block's place in the index");
    check.Expect(block->m_place.kind == kind && block->Kind() == kind, "a block's kind");
    check.Expect(block->Age() == m_ages[number], "a block's age");
    check.Expect(most == std::uint64_t{block->LargestFree()} + 1, "a block's largest free chunk");
    return check.What();
}

const char* Mem_BlockAges::broken_tree() const
{
    Mem_FirstBreak check;
    for (std::size_t node = 1; node < capacity(); ++node)
        check.Expect(m_most[node] == std::max(m_most[2 * node], m_most[2 * node + 1]),
                     "the tree of largest free chunks");
    return check.What();
}

Mem_BlockIndex::Entry::Entry(Mem_BlockIndex& index, const Block& block, const Mem_BlockKind& kind)
    : m_index(index), m_kind(kind), m_is_new(!is_of(block, kind))
{
    if (!m_is_new)
        return;
    Mem_BlockAges& ages = index.m_kinds[kind];
    try {
        ages.Reserve();
    } catch (...) {
        index.tidy(kind);
        throw;
    }
}

Mem_BlockIndex::Entry::~Entry()
{
    if (m_is_new)
        m_index.tidy(m_kind);
}

void Mem_BlockIndex::Entry::Settle(Block& block) const
{
    if (!m_is_new)
        return Update(block);
    m_index.Leave(block);
    block.m_place.kind = m_kind;
    m_index.m_kinds.find(m_kind)->second.Enter(block);
}

bool Mem_BlockIndex::is_of(const Block& block, const Mem_BlockKind& kind)
{
    return block.m_place.ages != nullptr && block.m_place.kind == kind;
}

void Mem_BlockIndex::tidy(const Mem_BlockKind& kind)
{
    const auto found = m_kinds.find(kind);
    if (found != m_kinds.end() && found->second.IsEmpty())
        m_kinds.erase(found);
}

void Mem_BlockIndex::Update(const Block& block)
{
    if (Knows(block))
        block.m_place.ages->Update(block);
}

void Mem_BlockIndex::Leave(Block& block)
{
    if (!Knows(block))
        return;
    const Mem_BlockKind kind = block.m_place.kind;
    block.m_place.ages->Leave(block);
    tidy(kind);
}

Block* Mem_BlockIndex::NewestFor(const Mem_BlockKind& keys, std::uint32_t size,
                                 std::uint64_t age) const
{
    Block* newest = nullptr;
    for (auto at = m_kinds.lower_bound(keys); at != m_kinds.end(); ++at) {
        const auto& [kind, ages] = *at;
        if (kind.client != keys.client || kind.always_mapped != keys.always_mapped ||
            kind.group_id != keys.group_id)
            break;
        if (size < kind.smallest || size > kind.largest)
            continue;
        Block* const block = ages.NewestWith(size, age);
        if (block != nullptr && (newest == nullptr || block->Age() > newest->Age()))
            newest = block;
    }
    return newest;
}

bool Mem_BlockIndex::Knows(const Block& block)
{
    return block.m_place.ages != nullptr;
}

std::size_t Mem_BlockIndex::Count() const
{
    std::size_t count = 0;
    for (const auto& [kind, ages] : m_kinds)
        count += ages.Count();
    return count;
}

const char* Mem_BlockIndex::Broken() const
{
    Mem_FirstBreak check;
    for (const auto& [kind, ages] : m_kinds) {
        check.Expect(!ages.IsEmpty(), "a kind without blocks");
        check.Expect(ages.Broken(kind));
    }
    return check.What();
}
