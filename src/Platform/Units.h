#ifndef PLATFORM_UNITS_H
#define PLATFORM_UNITS_H

#include <cstdint>

// An MB is 1048576 bytes. All conversions are here.

/// Bytes as MB with a fraction, as all messages show them.
inline double InMb(std::uint64_t bytes)
{
    return static_cast<double>(bytes) * 9.5367431640625e-7;
}

/// The whole MB in `bytes`; what is left of a further one is dropped.
constexpr std::uint64_t WholeMb(std::uint64_t bytes)
{
    return bytes >> 20;
}

/// `mb` MB as bytes.
constexpr std::uint64_t BytesOfMb(std::uint64_t mb)
{
    return mb << 20;
}

#endif
