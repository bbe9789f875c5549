#include "Mem/Mem_ShmmHeap_Windows.h"

#include "Mem/Mem_Configuration.h"
#include "Mem/Mem_Limits.h"
#include "Mem/Mem_NewName.h"
#include "Mem/Mem_TempFolder.h"
#include "NRVlog/Zor_Log.h"
#include "Platform/Inspection.h"
#include "Platform/LastError.h"
#include "Platform/Mappings.h"
#include "Platform/Process.h"
#include "Platform/Units.h"

#include <algorithm>
#include <cstdio>
#include <memory>
#include <utility>

namespace
{
/// Views `size` bytes of a mapping at `view`. @return 0; -1 if the system refuses, with the limit
/// remembered that stood in the way, after `log_refusal(MB, the system's error)`.
template <class LogRefusal>
int map_region(void*& view, void* mapping, unsigned int offset, unsigned int size,
               LogRefusal log_refusal)
{
    view = Platform::Mappings::Get().MapView(mapping, offset, size);
    if (view != nullptr)
        return 0;
    ViewLimits.Met();
    log_refusal(InMb(size), Platform::LastError());
    return -1;
}

/// Ends the view of `size` bytes at `view`, which is null then, also if the system refuses: after
/// `log_refusal(MB, the system's error)`. @return 0; -1 if there was no view.
template <class LogRefusal>
int unmap_region(void*& view, unsigned int size, LogRefusal log_refusal)
{
    if (view == nullptr)
        return -1;
    if (!Platform::Mappings::Get().UnmapView(view, size))
        log_refusal(InMb(size), Platform::LastError());
    view = nullptr;
    return 0;
}
} // namespace

SwapMapInfo::SwapMapInfo(RWCString name, unsigned int size)
    : BaseMapInfo(size, 0), m_name(std::move(name))
{
}

int SwapMapInfo::AllocateSwap()
{
    const RWCString spare = TempFolder();
    m_handle = Platform::Mappings::Get().CreateSharedMapping(m_name.data(), Size(), spare.data(),
                                                             &m_is_spare);
    if (m_handle != nullptr)
        return 0;
    RegionLimits.Met();
    ZOR_LOG("SwapMapInfo::AllocateSwap", 5,
            "Allocate: Couldn't allocate shared memory from swap (Details: CreateFileMapping "
            "failed, size %.1fMB. Errno [%lu]).\n",
            InMb(Size()), Platform::LastError());
    return -1;
}

int SwapMapInfo::FreeSwap()
{
    Platform::Mappings::Get().CloseMapping(m_handle);
    m_handle = nullptr;
    return 0;
}

int SwapMapInfo::Map()
{
    return map_region(m_pointer, m_handle, 0, Size(), [](double mb, unsigned long error) {
        ZOR_LOG("SwapMapInfo::Map", 5,
                "Map: Couldn't map swap to memory (Details: MapViewOfFile failed, Size %.1fMB, "
                "Errno [%lu]).\n",
                mb, error);
    });
}

int SwapMapInfo::Unmap()
{
    return unmap_region(m_pointer, Size(), [](double mb, unsigned long error) {
        ZOR_LOG("SwapMapInfo::Unmap", 4,
                "Unmap: Couldn't unmap shared memory to swap (Details: UnmapViewOfFile failed, "
                "Size %1.fMB, Errno [%lu])\n",
                mb, error);
    });
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
    return heap;
}

int Swap_ShmmHeap::Allocate(unsigned int size, unsigned int /*alignment*/, BaseInfo** result,
                            unsigned int /*always_mapped*/, unsigned int /*group_id*/)
{
    const unsigned int region_size =
        std::max(size, MEM_MemoryConfiguration::GetInstance()->BaseBlockSize());
    Mem_NewName name;
    auto region = std::make_unique<SwapMapInfo>(name.Text(), region_size);
    int failure = region->AllocateSwap();
    while (failure != 0 && name.TryAnother()) {
        region = std::make_unique<SwapMapInfo>(name.Text(), region_size);
        failure = region->AllocateSwap();
    }
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
    return m_name;
}

ShmmHeap::Store Swap_ShmmHeap::StoreOf(const BaseInfo& region) const
{
    return static_cast<const SwapMapInfo&>(region).IsSpare() ? &Mem_StoreStatus::spare_files
                                                             : &Mem_StoreStatus::shared_memory;
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

unsigned int GetAllocationGranularity()
{
    static const unsigned int granularity = Platform::Mappings::Get().AllocationGranularity();
    return granularity;
}

int Windows_FileInfo::AllocateFile()
{
    m_creator = Platform::Process::Get().ProcessId();
    Platform::Mappings::FileFault fault = Platform::Mappings::FileFault::None;
    Mem_NewName name;
    do {
        m_mapping_name = name.Text();
        m_mapping_handle = Platform::Mappings::Get().CreateMappingOverFile(
            FileName().data(), m_mapping_name.data(), Size(), &fault);
    } while (fault == Platform::Mappings::FileFault::Mapping && name.TryAnother());
    if (m_mapping_handle != nullptr)
        return 0;
    RegionLimits.Met();
    if (fault == Platform::Mappings::FileFault::File)
        ZOR_LOG("Windows_FileInfo::AllocateFile", 5,
                "Allocate: Couldn't allocate shared memory from private files (Details: "
                "CreateFile failed. Errno [%lu]).\n",
                Platform::LastError());
    else
        ZOR_LOG("Windows_FileInfo::AllocateFile", 5,
                "Allocate: Couldn't allocate shared memory from private files (Details: "
                "CreateFileMapping failed, size %.1fMB. Errno [%lu]).\n",
                InMb(Size()), Platform::LastError());
    return -1;
}

namespace
{
void log_destroy_failure(const char* what)
{
    char text[256];
    Platform::Process::Get().ErrorText(Platform::LastError(), text, sizeof text);
    ZOR_LOG("Windows_FileInfo::DestroyFile", 4, "%s  ; Msg: %s", what,
            static_cast<const char*>(text));
}
} // namespace

int Windows_FileInfo::DestroyFile()
{
    Platform::Mappings& platform = Platform::Mappings::Get();
    if (!platform.CloseMapping(m_mapping_handle))
        log_destroy_failure("In FileInfo::DestroyFile(), CloseHandle");
    m_mapping_handle = nullptr;
    if (Platform::Process::Get().ProcessId() != m_creator || platform.RemoveFile(FileName().data()))
        return 0;
    log_destroy_failure("In FileInfo::DestroyFile(), DeleteFile");
    ZOR_LOG("Windows_FileInfo::DestroyFile", 7, "Filename: %s\n", FileName().data());
    return -1;
}

RWCString Windows_FileInfo::MappingName()
{
    return m_mapping_name;
}

int Windows_FileMapInfo::Map()
{
    // The block that makes the regions has such a file.
    auto* const file = static_cast<Windows_FileInfo*>(m_file);
    return map_region(m_pointer, file->GetMappingHandle(), Offset(), Size(),
                      [](double mb, unsigned long error) {
                          ZOR_LOG("Windows_FileMapInfo::Map", 5,
                                  "Map: Couldn't map private file to memory (Details: "
                                  "MapViewOfFile failed, size %.1fMB, Errno [%lu])\n",
                                  mb, error);
                      });
}

int Windows_FileMapInfo::Unmap()
{
    return unmap_region(m_pointer, Size(), [](double mb, unsigned long error) {
        ZOR_LOG("Windows_FileMapInfo::Unmap", 4,
                "Unmap: Couldn't unmap shared memory to private files (Details: UnmapViewOfFile "
                "failed, Size %.1fMB, Errno [%lu])\n",
                mb, error);
    });
}

unsigned int Windows_FileMapInfo::HandleOffset()
{
    return Offset();
}

int Windows_FileBlock::create_info(BaseInfo** result, unsigned int /*alignment*/, Block* block)
{
    *result = new Windows_FileMapInfo(static_cast<Windows_FileInfo*>(m_map_info), block);
    return 0;
}

Windows_File_ShmmHeap* Windows_File_ShmmHeap::GetInstance()
{
    static auto* const heap = new Windows_File_ShmmHeap;
    static bool first = true;
    if (std::exchange(first, false))
        heap->crash_recovery();
    return heap;
}

namespace
{
/// With the separator at its end.
RWCString temp_path()
{
    const char separator[] = {Platform::Inspection::Get().PathSeparator(), 0};
    return TempFolder() + separator;
}
} // namespace

Windows_File_ShmmHeap::Windows_File_ShmmHeap() : File_ShmmHeap(temp_path()), m_temp_files(*this) {}

RWCString Windows_File_ShmmHeap::Name()
{
    return m_name;
}

FileInfo* Windows_File_ShmmHeap::create_file(RWCString name, unsigned int size)
{
    return new Windows_FileInfo(std::move(name), size);
}

Block* Windows_File_ShmmHeap::create_block(FileInfo* file)
{
    return new Windows_FileBlock(static_cast<Windows_FileInfo*>(file));
}

int Windows_File_ShmmHeap::crash_recovery()
{
    const RWCString pattern = m_temp_path + m_temp_file_name + "*";
    ZOR_LOG("Windows_File_ShmmHeap::crash_recovery", 5, "Mem do clean for path %s  %s \n",
            pattern.data(), m_temp_path.data());
    m_temp_files.Restart();
    m_temp_files.GoOn(Mem_Leftovers::AtFirst);
    return 0;
}

/// Names of another form are a user's.
bool Windows_File_ShmmHeap::LeftFiles::remove_if_left(const char* name)
{
    char path[4096];
    const int length = std::snprintf(path, sizeof path, "%s%s", m_folder.data(), name);
    return BaseMapInfo::IsTempFileName(name, m_heap.m_temp_file_name) &&
           static_cast<std::size_t>(length) < sizeof path && delete_file(path);
}

bool Windows_File_ShmmHeap::delete_file(const char* file)
{
    Platform::Mappings& platform = Platform::Mappings::Get();
    const int process = BaseMapInfo::GetProcessIdFromUniqueName(file);
    const auto shown = static_cast<unsigned int>(process);
    ZOR_LOG("Windows_File_ShmmHeap::delete_file", 5, "Mem: try to clean file %s creator pid %u  \n",
            file, shown);
    if (process == 0)
        return false;
    const Platform::Mappings::Creator creator = platform.CreatorOf(file, process);
    if (creator == Platform::Mappings::Creator::Gone) {
        ZOR_LOG("Windows_File_ShmmHeap::delete_file", 4,
                "Handle of process with PID <%u> is NULL, call Os to remove file <%s>   \n", shown,
                file);
        return platform.RemoveDeadFile(file);
    }
    ZOR_LOG("Windows_File_ShmmHeap::delete_file", 5,
            "Handle is not NULL, check if process ended or still active for file <%s>   \n", file);
    if (creator == Platform::Mappings::Creator::Running)
        return false;
    ZOR_LOG("Windows_File_ShmmHeap::delete_file", 4,
            "Process with PID <%u> is not active, call Os to remove file <%s>   \n", shown, file);
    return platform.RemoveDeadFile(file);
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
    Platform::Mappings& platform = Platform::Mappings::Get();
    if (m_Handle == nullptr) {
        const RWCString spare = TempFolder();
        m_Handle = platform.OpenMapping(m_mapping_name.data(), spare.data());
    }
    if (m_Handle == nullptr) {
        ViewLimits.Met();
        ZOR_LOG("StreamedMapInfo::Map", 3,
                "Couldn't open map to non-local memory (Details: OpenFileMapping failed, name %s, "
                "Errno [%lu]).\n",
                m_mapping_name.data(), Platform::LastError());
        return -1;
    }
    return map_region(m_pointer, m_Handle, Offset(), Size(), [](double mb, unsigned long error) {
        ZOR_LOG("StreamedMapInfo::Map", 5,
                "Couldn't map non-local memory to the process (Details: MapViewOfFile failed, Size "
                "%.1fMB, Errno [%lu]).\n",
                mb, error);
    });
}

int StreamedMapInfo::Unmap()
{
    return unmap_region(m_pointer, Size(), [](double mb, unsigned long error) {
        ZOR_LOG("StreamedMapInfo::Unmap", 4,
                "Unmap: Couldn't unmap shared non-local memory (Details: UnmapViewOfFile failed, "
                "Size %.1fMB, Errno [%lu])\n",
                mb, error);
    });
}

int StreamedMapInfo::Free()
{
    if (m_pointer != nullptr)
        Platform::Mappings::Get().UnmapView(m_pointer, Size());
    m_pointer = nullptr;
    if (m_Handle != nullptr)
        Platform::Mappings::Get().CloseMapping(m_Handle);
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
    const auto known = m_owners.find(name);
    if (known != m_owners.end())
        return known->second;
    auto owner = std::make_unique<StreamedMapInfo>(mappingName.data(), name.data(), offset, size);
    m_owners.emplace(name, owner.get());
    return owner.release();
}

void Windows_StreamedOwnersRepository::ReleaseOwner(RWCString& name)
{
    const auto owner = m_owners.find(name);
    if (owner == m_owners.end())
        return;
    delete owner->second;
    m_owners.erase(owner);
}

StreamedOwnersRepository* GetStreamedOwnersRepository(const void* client)
{
    static auto* const repositories = new std::map<const void*, Windows_StreamedOwnersRepository>;
    return &(*repositories)[client];
}
