#include "Mem/Mem_MemInfo.h"

#include "Mem/Mem_ShmmHeap.h"
#include "NRVlog/Zor_Log.h"
#include "Zor/Zor_Buffer.h"

#include <cstdint>

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

MEM_MemInfo::MEM_MemInfo(BaseMapInfo* owner, unsigned int alignment, Block* block)
    : BaseMapInfo(0, 0, block), m_owner(owner), m_alignment(alignment)
{
}

MEM_MemInfo::MEM_MemInfo(MEM_MemInfo& other)
    : BaseMapInfo(other),
      m_owner(other.m_owner),
      m_alignment(other.m_alignment),
      m_SmallOffsetDueToAlignment(other.m_SmallOffsetDueToAlignment),
      m_registered(other.m_registered)
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
    // Most pieces want no alignment, so that it needn't be asked whose they are.
    if ((m_alignment | m_SmallOffsetDueToAlignment) != 0 && !Local())
        m_SmallOffsetDueToAlignment = bytes_up_to_multiple(pointer, m_alignment);
    m_pointer = pointer + m_SmallOffsetDueToAlignment;
}

namespace
{
constexpr int kLongestName = 255;

void write_name(Zor_oBuffer& out, const RWCString& name)
{
    out << static_cast<int>(name.length());
    out.write(name.data(), static_cast<std::streamsize>(name.length()));
}

/// Reads a name into `name`, an array for kLongestName bytes and a zero. @return the name's length;
/// -1 if the stream doesn't hold one, and it has failed then.
int read_name(Zor_iBuffer& in, char* name)
{
    int length = 0;
    in >> length;
    if (length < 0 || length > kLongestName) {
        ZOR_LOG("operator >>", 7,
                "Zor_iBuffer& operator >> ( Zor_iBuffer& in, MEM_MemInfo& mem_info), len too "
                "long");
        in.setstate(std::ios_base::failbit);
        return -1;
    }
    in.read(name, length);
    name[in ? length : 0] = 0;
    return in ? length : -1;
}
} // namespace

Zor_oBuffer& operator<<(Zor_oBuffer& out, MEM_MemInfo& info)
{
    BaseMapInfo& owner = *info.Owner();
    out << info.Offset() << info.Size() << info.m_SmallOffsetDueToAlignment;
    out << owner.Offset() << owner.Size();
    out.Write64bitHandle(owner.Handle());
    write_name(out, owner.MappingName());
    write_name(out, owner.Name());
    return out;
}

Zor_iBuffer& operator>>(Zor_iBuffer& in, MEM_MemInfo& info)
{
    Mem_MemoryChunk chunk;
    unsigned int small_offset = 0;
    unsigned int owner_offset = 0;
    unsigned int owner_size = 0;
    void* owner_handle = nullptr;
    in >> chunk.m_Offset >> chunk.m_Size >> small_offset >> owner_offset >> owner_size;
    in.Read64bitHandle(owner_handle);
    ZOR_LOG("operator >>", 7,
            " operator >> m_Offset %d, m_Size %d, m_SmallOffsetDueToAlignment %d  \n",
            static_cast<int>(chunk.m_Offset), static_cast<int>(chunk.m_Size),
            static_cast<int>(small_offset));
    ZOR_LOG("operator >>", 7, " operator >> owner_offset %downer_size %d, owner_handle %p\n",
            static_cast<int>(owner_offset), static_cast<int>(owner_size), owner_handle);

    char mapping_name[kLongestName + 1];
    const int mapping_length = read_name(in, mapping_name);
    if (mapping_length < 0)
        return in;
    ZOR_LOG("operator >>", 7, " operator >> len %d mapping name %s \n", mapping_length,
            static_cast<const char*>(mapping_name));
    char name[kLongestName + 1];
    const int length = read_name(in, name);
    if (length < 0)
        return in;
    ZOR_LOG("operator >>", 7, " operator >> len %d name %s \n", length,
            static_cast<const char*>(name));

    info.SetMappingInfo(owner_handle, mapping_name, name, owner_size, owner_offset);
    info.SetChunk(chunk);
    info.m_SmallOffsetDueToAlignment = small_offset;
    return in;
}
