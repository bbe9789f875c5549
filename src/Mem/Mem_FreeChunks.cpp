#include "Mem/Mem_FreeChunks.h"

#include "Mem/Mem_FirstBreak.h"
#include "Mem/Mem_Prefetch.h"

#include <algorithm>
#include <bit>

namespace
{
constexpr int kMostBits = 7; // 3328 bins for 4 GB, in 53 words
} // namespace

Mem_FreeChunks::Mem_FreeChunks(std::uint32_t region_size)
    : m_region_size(region_size), m_bins(1), m_filled(1)
{
}

// Up to 2^bits a size has a bin of its own.
std::size_t Mem_FreeChunks::bin_number(std::uint32_t size, int bits)
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
    const int bits = std::min(static_cast<int>(std::bit_width(count / 128)), kMostBits);
    if (bits == 0 || bits <= m_bits)
        return;
    std::vector<Bin> narrow(bin_number(m_region_size, bits) + 1);
    Filled filled(narrow.size());
    for (Bin& bin : m_bins)
        while (!bin.empty()) {
            Mem_Chunk& chunk = *bin.begin();
            bin.erase(bin.begin());
            const std::size_t number = bin_number(chunk.actual_size, bits);
            narrow[number].push_back(chunk);
            filled.Set(number);
        }
    m_bins.swap(narrow);
    std::swap(m_filled, filled);
    m_bits = bits;
}

void Mem_FreeChunks::Enter(Mem_Chunk& chunk)
{
    const std::size_t number = bin_of(chunk.actual_size);
    Bin& bin = m_bins[number];
    // The youngest of its size stands before the first that is larger.
    const std::uint64_t larger = std::uint64_t{chunk.actual_size} + 1;
    bin.insert_before(bin.lower_bound(larger, SmallerThan()), chunk);
    m_filled.Set(number);
    m_empty += chunk.actual_size == 0 ? 1 : 0;
    if (chunk.actual_size >= Largest()) {
        m_largest = &chunk;
        m_largest_size = chunk.actual_size;
    }
}

void Mem_FreeChunks::Leave(Mem_Chunk& chunk)
{
    const std::size_t number = bin_of(chunk.actual_size);
    Bin& bin = m_bins[number];
    bin.erase(bin.iterator_to(chunk));
    if (bin.empty())
        m_filled.Clear(number);
    m_empty -= chunk.actual_size == 0 ? 1 : 0;
    if (m_largest == &chunk) {
        m_largest = find_largest();
        m_largest_size = m_largest != nullptr ? m_largest->actual_size : 0;
    }
}

void Mem_FreeChunks::Prefetch(std::uint32_t size) const
{
    Mem_Prefetch(&m_bins[bin_of(size)]);
}

Mem_Chunk* Mem_FreeChunks::SmallestOfAtLeast(std::uint64_t size) const
{
    if (size > Largest())
        return nullptr;
    const std::size_t number = bin_of(static_cast<std::uint32_t>(size));
    Bin& bin = m_bins[number];
    const auto found = bin.lower_bound(size, SmallerThan());
    return found != bin.end() ? &*found : first_from(number + 1);
}

Mem_Chunk* Mem_FreeChunks::After(const Mem_Chunk& chunk) const
{
    const std::size_t number = bin_of(chunk.actual_size);
    Bin& bin = m_bins[number];
    const auto next = ++bin.iterator_to(const_cast<Mem_Chunk&>(chunk));
    return next != bin.end() ? &*next : first_from(number + 1);
}

Mem_Chunk* Mem_FreeChunks::first_from(std::size_t bin) const
{
    const std::size_t number = m_filled.From(bin);
    return number != kNone ? &*m_bins[number].begin() : nullptr;
}

// The set's own way to its last element goes down the tree; its header knows it.
Mem_Chunk* Mem_FreeChunks::find_largest() const
{
    const std::size_t number = m_filled.Last();
    if (number == kNone)
        return nullptr;
    const auto last = Bin::node_traits::get_right(m_bins[number].end().pointed_node());
    return Bin::value_traits::to_value_ptr(last);
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
    const Mem_Chunk* before = nullptr;
    std::size_t empty = 0;
    for (std::size_t number = 0; number < m_bins.size(); ++number) {
        check.Expect(m_filled.Has(number) != m_bins[number].empty(), "the filled bins");
        for (const Mem_Chunk& chunk : m_bins[number]) {
            check.Expect(bin_of(chunk.actual_size) == number, "a free chunk's bin");
            empty += chunk.actual_size == 0 ? 1 : 0;
            before = &chunk;
        }
    }
    check.Expect(before == m_largest, "the largest free chunk");
    check.Expect(before == nullptr || before->actual_size == m_largest_size,
                 "the largest free chunk's size");
    check.Expect(empty == m_empty, "the number of empty free chunks");
    return check.What();
}
