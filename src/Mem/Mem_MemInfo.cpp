#include "Mem/Mem_MemInfo.h"

#include "Mem/Mem_ShmmHeap.h"
#include "Platform/Platform.h"

#include <cstdint>
#include <cstdio>

namespace
{
unsigned int bytes_up_to_multiple(const void* pointer, unsigned int alignment)
{
    if (alignment == 0)
        return 0;
    const auto rest =
        static_cast<unsigned int>(reinterpret_cast<std::uintptr_t>(pointer) % alignment);
    return rest == 0 ? 0 : alignment - rest;
}
} // namespace

BaseInfo::~BaseInfo() = default;

unsigned int BaseInfo::Size()
{
    return m_chunk.m_Size;
}

bool BaseInfo::IsUsed()
{
    return m_owner_block != nullptr && m_owner_block->IsUsed();
}

unsigned int BaseInfo::Offset()
{
    return m_chunk.m_Offset;
}

Block* BaseInfo::OwnerBlock()
{
    return m_owner_block;
}

Mem_MemoryChunk BaseInfo::GetChunk()
{
    return m_chunk;
}

void BaseInfo::SetChunk(Mem_MemoryChunk chunk)
{
    m_chunk = chunk;
}

const char* const BaseMapInfo::s_BlockPrefix = "NorvaneMemoryBlock";
int BaseMapInfo::s_unique_name_id = 0;

BaseMapInfo::~BaseMapInfo() = default;

int BaseMapInfo::Map()
{
    return 0;
}

int BaseMapInfo::Unmap()
{
    return 0;
}

int BaseMapInfo::Free()
{
    return 0;
}

void* BaseMapInfo::Ptr()
{
    return m_pointer;
}

bool BaseMapInfo::Local()
{
    return true;
}

void BaseMapInfo::GetHeaderParameters(unsigned int& first, unsigned int& second)
{
    first = 0;
    second = 0;
}

RWCString BaseMapInfo::CreateUniqueName()
{
    Platform& platform = Platform::Get();
    char text[256];
    std::snprintf(text, sizeof text, "%s_%ld_%ld_%ld", s_BlockPrefix, platform.ProcessId(),
                  platform.ThreadId(), static_cast<long>(s_unique_name_id));
    RWCString name(text);
    ++s_unique_name_id;
    return name;
}

MEM_MemInfo::MEM_MemInfo(BaseMapInfo* owner, unsigned int alignment, Block* block)
    : BaseMapInfo(0, 0, block), m_owner(owner), m_alignment(alignment)
{
}

MEM_MemInfo::MEM_MemInfo(MEM_MemInfo& other)
    : BaseMapInfo(other),
      m_owner(other.m_owner),
      m_alignment(other.m_alignment),
      m_SmallOffsetDueToAlignment(other.m_SmallOffsetDueToAlignment)
{
}

MEM_MemInfo::~MEM_MemInfo() = default;

bool MEM_MemInfo::Local()
{
    return m_owner->Local();
}

void* MEM_MemInfo::Handle()
{
    return m_owner->Handle();
}

RWCString MEM_MemInfo::Name()
{
    return RWCString();
}

RWCString MEM_MemInfo::MappingName()
{
    return RWCString();
}

unsigned int MEM_MemInfo::HandleOffset()
{
    return m_owner->HandleOffset() + m_SmallOffsetDueToAlignment + Offset();
}

void MEM_MemInfo::SetMappingInfo(void* ownerHandle, char* mappingName, char* infoName,
                                 unsigned int ownerSize, unsigned int ownerOffset)
{
    RWCString mapping_name(mappingName);
    RWCString info_name(infoName);
    m_mapping_name = mapping_name;
    m_info_name = info_name;
    m_owner_handle = ownerHandle;
    m_owner_size = ownerSize;
    m_owner_offset = ownerOffset;
}

void MEM_MemInfo::UpdatePtrByBase(void* base)
{
    m_pointer = nullptr;
    if (base == nullptr)
        return;
    char* pointer = static_cast<char*>(base) + Offset();
    if (!Local())
        m_SmallOffsetDueToAlignment = bytes_up_to_multiple(pointer, m_alignment);
    m_pointer = pointer + m_SmallOffsetDueToAlignment;
}
