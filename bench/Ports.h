#ifndef BENCH_PORTS_H
#define BENCH_PORTS_H

#include <cstddef>
#include <cstdint>

// What the ports of the peers' examples work on: the originals' sizes, but for a vector of a
// quarter of its length.

constexpr std::size_t kPortNumbers = std::size_t{32} << 20;
constexpr std::size_t kWidth = 200, kHeight = 201, kDepth = 202;

/// As many numbers as one likes, at no price beside that of storing them.
class PortNumbers
{
public:
    unsigned Next()
    {
        m_state = m_state * 6364136223846793005u + 1442695040888963407u;
        return static_cast<unsigned>(m_state >> 33);
    }

private:
    std::uint64_t m_state = 1;
};

inline bool IsEven(unsigned number)
{
    return number % 2 == 0;
}

/// Whether each element is its number.
template <class Range>
bool AreNumbered(const Range& elements)
{
    float next = 0;
    bool right = true;
    for (const float value : elements)
        right = value == next++ && right;
    return right;
}

#endif
