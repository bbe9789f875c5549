#ifndef MEM_UNITS_H
#define MEM_UNITS_H

#include <cstdint>

/// Bytes as MB with a fraction, as all messages show them.
inline double InMb(std::uint64_t bytes)
{
    return static_cast<double>(bytes) * 9.5367431640625e-7;
}

#endif
