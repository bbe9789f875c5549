#include "Mem/Mem_ShmmHeap_Windows.h"

#include "Mem/Mem_Configuration.h"
#include "Mem/Mem_Units.h"
#include "NRVlog/Zor_Log.h"
#include "Platform/Platform.h"

#include <algorithm>
#include <memory>

SwapMapInfo::SwapMapInfo(RWCString name, unsigned int size) : BaseMapInfo(size, 0), m_name(name) {}

int SwapMapInfo::AllocateSwap()
{
    m_handle = Platform::Get().CreateSharedMapping(m_name.data(), Size());
    if (m_handle != nullptr)
        return 0;
    ZOR_LOG("SwapMapInfo::AllocateSwap", 5,
            "Allocate: Couldn't allocate shared memory from swap (Details: CreateFileMapping "
            "failed, size %.1fMB. Errno [%lu]).\n",
            InMb(Size()), Platform::Get().LastError());
    return -1;
}

int SwapMapInfo::FreeSwap()
{
    Platform::Get().CloseMapping(m_handle);
    m_handle = nullptr;
    return 0;
}

int SwapMapInfo::Map()
{
    m_pointer = Platform::Get().MapView(m_handle, 0, Size());
    if (m_pointer != nullptr)
        return 0;
    ZOR_LOG("SwapMapInfo::Map", 5,
            "Map: Couldn't map swap to memory (Details: MapViewOfFile failed, Size %.1fMB, Errno "
            "[%lu]).\n",
            InMb(Size()), Platform::Get().LastError());
    return -1;
}

int SwapMapInfo::Unmap()
{
    if (m_pointer == nullptr)
        return -1;
    if (!Platform::Get().UnmapView(m_pointer, Size()))
        ZOR_LOG("SwapMapInfo::Unmap", 4,
                "Unmap: Couldn't unmap shared memory to swap (Details: UnmapViewOfFile failed, "
                "Size %1.fMB, Errno [%lu])\n",
                InMb(Size()), Platform::Get().LastError());
    m_pointer = nullptr;
    return 0;
}

void* SwapMapInfo::Handle()
{
    return m_handle;
}

RWCString SwapMapInfo::Name()
{
    return m_name;
}

RWCString SwapMapInfo::MappingName()
{
    return m_name;
}

unsigned int SwapMapInfo::HandleOffset()
{
    return 0;
}

Swap_ShmmHeap* Swap_ShmmHeap::GetInstance()
{
    static auto* const heap = new Swap_ShmmHeap;
    static const int removed = Platform::Get().RemoveDeadMappings(BaseMapInfo::s_BlockPrefix);
    static_cast<void>(removed);
    return heap;
}

int Swap_ShmmHeap::Allocate(unsigned int size, unsigned int /*alignment*/, BaseInfo** result,
                            unsigned int /*always_mapped*/, unsigned int /*group_id*/)
{
    const unsigned int region_size =
        std::max(size, MEM_MemoryConfiguration::GetInstance()->BaseBlockSize());
    auto region = std::make_unique<SwapMapInfo>(BaseMapInfo::CreateUniqueName(), region_size);
    const int failure = region->AllocateSwap();
    if (failure != 0)
        return failure;
    m_total_size += region_size;
    *result = region.release();
    return 0;
}

int Swap_ShmmHeap::Allocate(unsigned int size, unsigned int alignment, BaseInfo** result)
{
    return Allocate(size, alignment, result, 0, 0);
}

int Swap_ShmmHeap::Free(BaseInfo* info)
{
    m_total_size -= info->Size();
    static_cast<SwapMapInfo*>(info)->FreeSwap();
    delete info;
    return 0;
}

RWCString Swap_ShmmHeap::Name()
{
    static const RWCString& name = *new RWCString("Windows_Swap");
    return name;
}

int Swap_ShmmHeap::create_result_element(unsigned int, Block**, unsigned int, unsigned int)
{
    return -1;
}

int Swap_ShmmHeap::create_result_element(unsigned int, Block**)
{
    return -1;
}

int Swap_ShmmHeap::destroy_element(Block*)
{
    return -1;
}

StreamedMapInfo::StreamedMapInfo(const char* mappingName, const char* name, unsigned int offset,
                                 unsigned int size)
    : BaseMapInfo(size, offset), m_mapping_name(mappingName), m_name(name)
{
}

StreamedMapInfo::~StreamedMapInfo()
{
    if (m_Handle != nullptr)
        ZOR_LOG("StreamedMapInfo::~StreamedMapInfo", 7, "~StreamedMapInfo(), m_Handle is not NULL");
}

int StreamedMapInfo::Map()
{
    Platform& platform = Platform::Get();
    if (m_Handle == nullptr)
        m_Handle = platform.OpenMapping(m_mapping_name.data());
    if (m_Handle == nullptr) {
        ZOR_LOG("StreamedMapInfo::Map", 3,
                "Couldn't open map to non-local memory (Details: OpenFileMapping failed, name %s, "
                "Errno [%lu]).\n",
                m_mapping_name.data(), platform.LastError());
        return -1;
    }
    m_pointer = platform.MapView(m_Handle, Offset(), Size());
    if (m_pointer != nullptr)
        return 0;
    ZOR_LOG("StreamedMapInfo::Map", 5,
            "Couldn't map non-local memory to the process (Details: MapViewOfFile failed, Size "
            "%.1fMB, Errno [%lu]).\n",
            InMb(Size()), platform.LastError());
    return -1;
}

int StreamedMapInfo::Unmap()
{
    if (m_pointer == nullptr)
        return -1;
    if (!Platform::Get().UnmapView(m_pointer, Size()))
        ZOR_LOG("StreamedMapInfo::Unmap", 4,
                "Unmap: Couldn't unmap shared non-local memory (Details: UnmapViewOfFile failed, "
                "Size %.1fMB, Errno [%lu])\n",
                InMb(Size()), Platform::Get().LastError());
    m_pointer = nullptr;
    return 0;
}

int StreamedMapInfo::Free()
{
    if (m_pointer != nullptr)
        Platform::Get().UnmapView(m_pointer, Size());
    m_pointer = nullptr;
    if (m_Handle != nullptr)
        Platform::Get().CloseMapping(m_Handle);
    m_Handle = nullptr;
    return 0;
}

bool StreamedMapInfo::Local()
{
    return false;
}

void* StreamedMapInfo::Handle()
{
    return m_Handle;
}

RWCString StreamedMapInfo::Name()
{
    return m_name;
}

RWCString StreamedMapInfo::MappingName()
{
    return m_mapping_name;
}

unsigned int StreamedMapInfo::HandleOffset()
{
    return 0;
}

BaseMapInfo* Windows_StreamedOwnersRepository::GetOwner(void* /*handle*/, RWCString& mappingName,
                                                        RWCString& name, unsigned int offset,
                                                        unsigned int size)
{
    const Key key(m_client, name);
    const auto known = m_owners.find(key);
    if (known != m_owners.end())
        return known->second;
    auto owner = std::make_unique<StreamedMapInfo>(mappingName.data(), name.data(), offset, size);
    m_owners.emplace(key, owner.get());
    return owner.release();
}

void Windows_StreamedOwnersRepository::ReleaseOwner(RWCString& name)
{
    const auto owner = m_owners.find(Key(m_client, name));
    if (owner == m_owners.end())
        return;
    delete owner->second;
    m_owners.erase(owner);
}

StreamedOwnersRepository* GetStreamedOwnersRepository()
{
    static auto* const repository = new Windows_StreamedOwnersRepository;
    return repository;
}
