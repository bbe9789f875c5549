#include "Mem/Mem_FreeChunks.h"

#include "Mem/Mem_FirstBreak.h"
#include "Mem/Mem_Prefetch.h"

#include <algorithm>
#include <bit>
#include <utility>

namespace
{
constexpr int kMostBits = 7; // 3328 bins for 4 GB, in 53 words
constexpr std::size_t kChunksToABit = 32;

using Hooked = boost::intrusive::set<Mem_Chunk>::value_traits;
} // namespace

Mem_FreeChunks::Node* Mem_FreeChunks::node_of(Mem_Chunk& chunk)
{
    return Hooked::to_node_ptr(chunk);
}

// A node has no constness of its own: it is a part of the chunk, which isn't const.
Mem_Chunk* Mem_FreeChunks::chunk_of(const Node* node)
{
    return Hooked::to_value_ptr(const_cast<Node*>(node));
}

/// The chunk at a place in a bin; null at its end.
Mem_Chunk* Mem_FreeChunks::chunk_in(const Node& bin, const Node* node)
{
    return node != &bin ? chunk_of(node) : nullptr;
}

// Lists are empty in the same form as trees.
std::vector<Mem_FreeChunks::Node> Mem_FreeChunks::empty_bins(std::size_t count)
{
    std::vector<Node> bins(count);
    for (Node& bin : bins)
        Tree::init_header(&bin);
    return bins;
}

Mem_FreeChunks::Mem_FreeChunks(std::uint32_t region_size)
    : m_region_size(region_size), m_bins(empty_bins(1)), m_filled(1)
{
}

std::size_t Mem_FreeChunks::Widths::BinOf(std::uint32_t size) const
{
    if (bits == kOneBin)
        return 0;
    const int shift = static_cast<int>(std::bit_width(size)) - 1 - bits;
    if (shift <= 0)
        return size;
    return (static_cast<std::size_t>(shift) << bits) + (size >> shift);
}

void Mem_FreeChunks::KeepBins(std::size_t count)
{
    const int bits = std::min(static_cast<int>(std::bit_width(count / kChunksToABit)), kMostBits);
    if (bits == 0 || bits <= m_widths.bits)
        return;
    Mem_FreeChunks narrow(m_region_size);
    narrow.m_widths.bits = bits;
    narrow.m_bins = empty_bins(narrow.m_widths.BinOf(m_region_size) + 1);
    narrow.m_filled = Filled(narrow.m_bins.size());
    while (Mem_Chunk* const chunk = First()) {
        Leave(*chunk);
        narrow.Enter(*chunk);
    }
    *this = std::move(narrow);
}

void Mem_FreeChunks::Enter(Mem_Chunk& chunk)
{
    const std::uint32_t size = chunk.actual_size;
    const std::size_t number = m_widths.BinOf(size);
    Node& bin = m_bins[number];
    if (m_widths.IsList(number))
        List::link_before(&bin, node_of(chunk));
    else // the youngest of its size stands before the first that is larger
        Tree::insert_before(&bin, lower_bound(bin, std::uint64_t{size} + 1), node_of(chunk));
    m_filled.Set(number);
    m_empty += size == 0 ? 1 : 0;
    if (size >= Largest()) {
        m_largest = &chunk;
        m_largest_size = size;
    }
}

void Mem_FreeChunks::Leave(Mem_Chunk& chunk)
{
    const std::uint32_t size = chunk.actual_size;
    const std::size_t number = m_widths.BinOf(size);
    Node& bin = m_bins[number];
    if (m_widths.IsList(number))
        List::unlink(node_of(chunk));
    else
        Tree::erase(&bin, node_of(chunk));
    if (is_empty(bin))
        m_filled.Clear(number);
    m_empty -= size == 0 ? 1 : 0;
    if (m_largest == &chunk) {
        m_largest = find_largest();
        m_largest_size = m_largest != nullptr ? m_largest->actual_size : 0;
    }
}

void Mem_FreeChunks::PrefetchForEnter(std::uint32_t size) const
{
    Mem_Prefetch(&m_bins[m_widths.BinOf(size)]);
}

void Mem_FreeChunks::PrefetchForLeave(const Mem_Chunk& chunk) const
{
    const Node* const node = node_of(const_cast<Mem_Chunk&>(chunk));
    Mem_Prefetch(&m_bins[m_widths.BinOf(chunk.actual_size)]);
    Mem_Prefetch(Links::get_left(node));
    Mem_Prefetch(Links::get_right(node));
}

Mem_Chunk* Mem_FreeChunks::SmallestOfAtLeast(std::uint64_t size) const
{
    if (size > Largest())
        return nullptr;
    const std::size_t number = m_widths.BinOf(static_cast<std::uint32_t>(size));
    if (m_widths.IsList(number))
        return first_from(number);
    const Node& bin = m_bins[number];
    Mem_Chunk* const found = chunk_in(bin, lower_bound(bin, size));
    return found != nullptr ? found : first_from(number + 1);
}

Mem_Chunk* Mem_FreeChunks::After(const Mem_Chunk& chunk) const
{
    const std::size_t number = m_widths.BinOf(chunk.actual_size);
    Node* const node = node_of(const_cast<Mem_Chunk&>(chunk));
    Mem_Chunk* const next = chunk_in(m_bins[number], next_in(number, node));
    return next != nullptr ? next : first_from(number + 1);
}

/// The first chunk of at least `size` bytes in a bin that is a tree; its end if there is none.
Mem_FreeChunks::Node* Mem_FreeChunks::lower_bound(const Node& bin, std::uint64_t size)
{
    return Tree::lower_bound(&bin, size, [](const Node* node, std::uint64_t wanted) {
        return chunk_of(node)->actual_size < wanted;
    });
}

Mem_FreeChunks::Node* Mem_FreeChunks::next_in(std::size_t bin, Node* node) const
{
    return m_widths.IsList(bin) ? ListLinks::get_next(node) : Tree::next_node(node);
}

Mem_Chunk* Mem_FreeChunks::first_from(std::size_t bin) const
{
    const std::size_t number = m_filled.From(bin);
    return number != kNone ? chunk_of(Links::get_left(&m_bins[number])) : nullptr;
}

Mem_Chunk* Mem_FreeChunks::find_largest() const
{
    const std::size_t number = m_filled.Last();
    return number != kNone ? chunk_of(Links::get_right(&m_bins[number])) : nullptr;
}

void Mem_FreeChunks::Filled::Set(std::size_t bin)
{
    words[bin / 64] |= std::uint64_t{1} << bin % 64;
    summary |= std::uint64_t{1} << bin / 64;
}

void Mem_FreeChunks::Filled::Clear(std::size_t bin)
{
    words[bin / 64] &= ~(std::uint64_t{1} << bin % 64);
    if (words[bin / 64] == 0)
        summary &= ~(std::uint64_t{1} << bin / 64);
}

std::size_t Mem_FreeChunks::Filled::From(std::size_t bin) const
{
    std::size_t word = bin / 64;
    if (word >= words.size())
        return kNone;
    const std::uint64_t rest = words[word] >> bin % 64;
    if (rest != 0)
        return bin + static_cast<std::size_t>(std::countr_zero(rest));
    const std::uint64_t above = word + 1 < 64 ? summary >> (word + 1) : 0;
    if (above == 0)
        return kNone;
    word += 1 + static_cast<std::size_t>(std::countr_zero(above));
    return 64 * word + static_cast<std::size_t>(std::countr_zero(words[word]));
}

std::size_t Mem_FreeChunks::Filled::Last() const
{
    if (summary == 0)
        return kNone;
    const std::size_t word = static_cast<std::size_t>(std::bit_width(summary)) - 1;
    return 64 * word + static_cast<std::size_t>(std::bit_width(words[word])) - 1;
}

const char* Mem_FreeChunks::Broken() const
{
    Mem_FirstBreak check;
    const Mem_Chunk* last = nullptr;
    std::size_t empty = 0;
    for (std::size_t number = 0; number < m_bins.size(); ++number) {
        const Node& bin = m_bins[number];
        check.Expect(m_filled.Has(number) != is_empty(bin), "the filled bins");
        for (Node* at = Links::get_left(&bin); at != &bin; at = next_in(number, at)) {
            last = chunk_of(at);
            check.Expect(m_widths.BinOf(last->actual_size) == number, "a free chunk's bin");
            empty += last->actual_size == 0 ? 1 : 0;
        }
    }
    check.Expect(last == m_largest, "the largest free chunk");
    check.Expect(Largest() == (last != nullptr ? last->actual_size : 0),
                 "the largest free chunk's size");
    check.Expect(empty == m_empty, "the number of empty free chunks");
    return check.What();
}
