#ifndef MEM_HOLDING_H
#define MEM_HOLDING_H

#include <cstdint>

/// A block's state, the pieces that hold it mapped, and whether its place in the cache queue is
/// stale, in one word, which changes by a compare-exchange. A value: each of the functions below
/// gives the word that comes next. docs/hits.md tells who may take which step.
class Mem_Holding
{
public:
    /// The three states of a block.
    static constexpr int kMapped = 0;   ///< a view exists and clients hold it
    static constexpr int kUnmapped = 1; ///< no view
    static constexpr int kCached = 2;   ///< a view exists and waits for the next who wants it

    /// No view and no holder.
    constexpr Mem_Holding() = default;
    constexpr Mem_Holding(int stat, int m_ref, bool noted)
        : m_bits(static_cast<std::uint32_t>(stat) | (noted ? kNoted : 0) |
                 static_cast<std::uint32_t>(m_ref) * kOneHolder)
    {
    }

    int Stat() const { return static_cast<int>(m_bits & kStat); }
    int Holders() const { return static_cast<int>(m_bits / kOneHolder); }
    bool IsNoted() const { return (m_bits & kNoted) != 0; }
    bool HasView() const { return Stat() != kUnmapped; }
    bool IsCached() const { return Stat() == kCached; }

    /// Whether all is done that clients have left to do but for this one.
    bool IsLastHolders() const { return Holders() == 1 && Stat() == kMapped; }

    /// A client more. What leaves the cache by it has to leave the queue.
    Mem_Holding Held() const
    {
        return Stat() == kMapped ? Mem_Holding(m_bits + kOneHolder)
                                 : Mem_Holding(kMapped, 1, IsNoted() || IsCached());
    }
    /// A client less, of several.
    Mem_Holding LetGo() const { return Mem_Holding(m_bits - kOneHolder); }
    /// The view waits for the next who wants it, and wants a place in the queue.
    static Mem_Holding Cached() { return {kCached, 0, true}; }
    /// The view is to end.
    Mem_Holding Unmapped() const { return {kUnmapped, 0, IsNoted()}; }
    /// The queue knows about the block.
    Mem_Holding Gathered() const { return Mem_Holding(m_bits & ~kNoted); }

    bool operator==(const Mem_Holding&) const = default;

private:
    static constexpr std::uint32_t kStat = 3;
    static constexpr std::uint32_t kNoted = 4;
    static constexpr std::uint32_t kOneHolder = 8;

    explicit constexpr Mem_Holding(std::uint32_t bits) : m_bits(bits) {}

    std::uint32_t m_bits = kUnmapped;
};

#endif
