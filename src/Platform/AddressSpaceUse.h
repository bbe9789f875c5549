#ifndef PLATFORM_ADDRESSSPACEUSE_H
#define PLATFORM_ADDRESSSPACEUSE_H

#include "Platform/Process.h"

#include <algorithm>

namespace Platform
{

/// Adds up what the maps of this process take of its address space, in bytes. Allocates nothing.
class AddressSpaceUse final : private Process::Maps
{
public:
    /// @return false if the maps can't be found out.
    bool Read(Process& process)
    {
        const Process::Memory memory = process.MemoryNow();
        if (!process.ListMaps(*this))
            return false;
        m_largest_hole = std::max(m_largest_hole, memory.end_of_addresses - m_last_end);
        m_largest_free =
            std::min(m_largest_hole, memory.address_space - std::min(memory.address_space, m_used));
        return true;
    }

    std::uint64_t Used() const { return m_used; }

    /// The largest map that could still be had, by the holes between the others and by the limit.
    std::uint64_t LargestFree() const { return m_largest_free; }

private:
    void Take(const Process::Map& map) override
    {
        m_largest_hole = std::max(m_largest_hole, map.begin - m_last_end);
        m_used += map.size;
        m_last_end = map.begin + map.size;
    }

    std::uint64_t m_used = 0;
    std::uint64_t m_last_end = 0;
    std::uint64_t m_largest_hole = 0;
    std::uint64_t m_largest_free = 0;
};

} // namespace Platform

#endif
