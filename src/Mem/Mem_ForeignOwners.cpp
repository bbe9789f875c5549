#include "Mem/Mem_ForeignOwners.h"

#include "Mem/Mem_MemInfo.h"
#include "Mem/Mem_ShmmHeap_Windows.h"
#include "Platform/Mappings.h"

#include <cstdint>
#include <limits>

const char* FaultOfDescriptor(MEM_MemInfo& info)
{
    const std::uint64_t piece_end = std::uint64_t{info.Offset()} + info.Size();
    const std::uint64_t owner_end = std::uint64_t{info.GetOwnerOffset()} + info.GetOwnerSize();
    if (info.Owner() != nullptr)
        return "its owner is set: it was registered, not read";
    if (!BaseMapInfo::IsUniqueName(info.GetInfoName()) ||
        !BaseMapInfo::IsUniqueName(info.GetMappingName()))
        return "a name is not one that this library gives";
    if (info.Size() == 0 || piece_end > info.GetOwnerSize())
        return "the piece lies outside its region";
    if (owner_end > std::numeric_limits<unsigned int>::max() ||
        info.GetOwnerOffset() % Platform::Mappings::Get().AllocationGranularity() != 0)
        return "there can be no such region";
    return nullptr;
}

bool LiesIn(MEM_MemInfo& piece, BaseMapInfo& region)
{
    return std::uint64_t{piece.Offset()} + piece.Size() <= region.Size();
}

Mem_ForeignOwners::Mem_ForeignOwners(const void* client) : m_client(client) {}

Mem_ForeignOwners::Fresh::Fresh(Mem_ForeignOwners& owners, MEM_MemInfo& info)
    : m_owners(owners), m_name(info.GetInfoName())
{
    RWCString mapping_name = info.GetMappingName();
    RWCString name = m_name;
    m_owner = GetStreamedOwnersRepository(owners.m_client)
                  ->GetOwner(info.GetOwnerHandle(), mapping_name, name, info.GetOwnerOffset(),
                             info.GetOwnerSize());
}

Mem_ForeignOwners::Fresh::~Fresh()
{
    if (m_owner != nullptr)
        m_owners.Release(m_owner, m_name);
}

void Mem_ForeignOwners::Release(BaseMapInfo* owner, RWCString name)
{
    owner->Free();
    GetStreamedOwnersRepository(m_client)->ReleaseOwner(name);
}
