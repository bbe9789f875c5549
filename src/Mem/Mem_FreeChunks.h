#ifndef MEM_FREECHUNKS_H
#define MEM_FREECHUNKS_H

#include <boost/intrusive/circular_list_algorithms.hpp>
#include <boost/intrusive/set.hpp>

#include <cstddef>
#include <cstdint>
#include <vector>

/// Not checked when it is linked or unlinked: the free chunks link it in two ways.
using Mem_ChunkHook =
    boost::intrusive::set_base_hook<boost::intrusive::optimize_size<true>,
                                    boost::intrusive::link_mode<boost::intrusive::normal_link>>;

/// One stretch of a region, or a spare record, whose size is 0. A cache line: what the space logic
/// costs in a full heap is the records that it has to look at.
struct alignas(64) Mem_Chunk : Mem_ChunkHook {
    Mem_Chunk* before = nullptr; // its neighbours in the region; none for an empty stretch
    Mem_Chunk* behind = nullptr;
    std::uint32_t offset = 0;      // where the stretch begins
    std::uint32_t actual_size = 0; // how long it is, an alignment gap included
    std::uint32_t size = 0;        // allocated: what was asked for
    bool is_free = false;
    bool is_ahead = false; // allocated, of 0 bytes: before one with bytes at that offset
    union {
        std::uint64_t order = 0; // when it became free, or, if of 0 bytes, was allocated
        Mem_Chunk* next;         // spare: in the list
    };

    std::uint32_t End() const { return offset + actual_size; }
    std::uint32_t AlignedOffset() const { return offset + (actual_size - size); }
};

/// The free chunks of a region by size, equals by age.
///
/// They stand in bins, each of which has the chunks of a range of sizes. The ranges are so narrow
/// that a bin of a full region has a few chunks: whoever looks for one, or takes one out, meets the
/// bin and one or two records, while one tree of all would lead past a dozen records that no cache
/// has. Small sizes, which most leftovers are of, have a bin each. Its chunks stand in a list,
/// which one enters and leaves without waiting for another's record. Larger sizes have wider
/// ranges, 2^n to each power of two, whose chunks stand in a tree; n grows with the region's
/// chunks. There is one bin at first, a tree.
///
/// Only KeepBins() allocates. Doesn't own the chunks.
class Mem_FreeChunks
{
public:
    /// The order of the chunks.
    struct SmallerThenOlder {
        bool operator()(const Mem_Chunk& a, const Mem_Chunk& b) const
        {
            return a.actual_size != b.actual_size ? a.actual_size < b.actual_size
                                                  : a.order < b.order;
        }
    };
    /// For a region of `region_size` bytes.
    explicit Mem_FreeChunks(std::uint32_t region_size);

    /// Makes the bins narrow enough for a region of up to `count` allocated chunks. Throws
    /// std::bad_alloc, with nothing changed.
    void KeepBins(std::size_t count);

    /// Takes a chunk in, as the youngest of its size. Its `order` is set already.
    void Enter(Mem_Chunk& chunk);
    void Leave(Mem_Chunk& chunk);

    /// Fetches what Enter() of a chunk of `size` bytes will change first.
    void PrefetchForEnter(std::uint32_t size) const;

    /// Fetches what Leave() of a chunk will change first.
    void PrefetchForLeave(const Mem_Chunk& chunk) const;

    /// The smallest chunk of at least `size` bytes, the oldest among equals; null if there is none.
    Mem_Chunk* SmallestOfAtLeast(std::uint64_t size) const;

    /// By size, equals by age; null behind the last. Without a look at bins that are empty.
    Mem_Chunk* First() const { return first_from(0); }
    Mem_Chunk* After(const Mem_Chunk& chunk) const;

    /// Whether there are chunks of 0 bytes. Those come first.
    bool HaveEmpty() const { return m_empty != 0; }

    /// The size of the largest chunk; 0 if there is none.
    std::uint32_t Largest() const { return m_largest != nullptr ? m_largest_size : 0; }

    /// Null, or the first relation that is broken between the chunks, whose order is whole, the
    /// bins and what is remembered of them.
    const char* Broken() const;

private:
    friend struct Mem_TestAccess;

    /// A chunk's links in its bin, and what a bin is: where its chain begins and ends.
    using Links = boost::intrusive::rbtree_node_traits<void*, true>;
    using Node = Links::node;
    using Tree = boost::intrusive::rbtree_algorithms<Links>;

    /// The same links as those of a list. A tree knows its first and last in the same places.
    struct ListLinks {
        using node = Node;
        using node_ptr = Node*;
        using const_node_ptr = const Node*;
        static Node* get_next(const Node* node) { return Links::get_left(node); }
        static void set_next(Node* node, Node* next) { Links::set_left(node, next); }
        static Node* get_previous(const Node* node) { return Links::get_right(node); }
        static void set_previous(Node* node, Node* previous) { Links::set_right(node, previous); }
    };
    using List = boost::intrusive::circular_list_algorithms<ListLinks>;

    /// How wide the bins are.
    struct Widths {
        std::size_t BinOf(std::uint32_t size) const;
        bool IsList(std::size_t bin) const { return bits != kOneBin && bin >> bits < 2; }

        int bits = kOneBin; // 2^bits bins to each power of two
    };

    /// The numbers of bins that aren't empty: a bit for each, and a bit for each word of those.
    struct Filled {
        explicit Filled(std::size_t bins) : words(bins / 64 + 1) {}
        void Set(std::size_t bin);
        void Clear(std::size_t bin);
        bool Has(std::size_t bin) const { return (words[bin / 64] >> bin % 64 & 1) != 0; }
        /// The first from `bin` on, and the last; kNone if there is none.
        std::size_t From(std::size_t bin) const;
        std::size_t Last() const;

        std::vector<std::uint64_t> words; // 64 at most
        std::uint64_t summary = 0;
    };

    static constexpr std::size_t kNone = static_cast<std::size_t>(-1);
    static constexpr int kOneBin = -1;

    static bool is_empty(const Node& bin) { return Links::get_left(&bin) == &bin; }
    static Node* node_of(Mem_Chunk& chunk);
    static Mem_Chunk* chunk_of(const Node* node);
    static Mem_Chunk* chunk_in(const Node& bin, const Node* node);
    static std::vector<Node> empty_bins(std::size_t count);
    static Node* lower_bound(const Node& bin, std::uint64_t size);
    Node* next_in(std::size_t bin, Node* node) const;

    Mem_Chunk* first_from(std::size_t bin) const;
    Mem_Chunk* find_largest() const;

    std::uint32_t m_region_size;
    std::uint32_t m_largest_size = 0;     // of the next
    const Mem_Chunk* m_largest = nullptr; // the youngest of them
    std::size_t m_empty = 0;              // chunks of 0 bytes
    Widths m_widths;
    std::vector<Node> m_bins;
    Filled m_filled;
};

#endif
