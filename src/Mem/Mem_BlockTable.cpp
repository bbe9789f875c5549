#include "Mem/Mem_BlockTable.h"

#include "Rw/RWBoundsErr.h"

#include <climits>
#include <cstdint>
#include <stdexcept>

void Mem_BlockTable::ReserveNext()
{
    if (m_length == INT_MAX)
        throw std::length_error("Mem_BlockTable: no more block ids");
    m_slots.Reserve(m_length);
}

void Mem_BlockTable::Append(RegisteredBlock* block)
{
    m_slots.Set(m_length, block);
    ++m_length;
}

void Mem_BlockTable::refuse(int id) const
{
    RWThrow(RWBoundsErr(RWMessage(RWTOOL_INDEXERR(), static_cast<std::uint64_t>(id),
                                  static_cast<std::uint64_t>(m_length))));
}

void Mem_BlockTable::Clear()
{
    m_slots.Clear();
    m_length = 0;
}
