#include "Mem/Mem_FileHeap.h"

#include "Mem/Mem_Configuration.h"
#include "Mem/Mem_Limits.h"
#include "Mem/Mem_NewName.h"
#include "Mem/Mem_ShmmHeap_Windows.h"
#include "Platform/Units.h"
#include "Zor/Zor_FileSystemUtils.h"

#include <algorithm>
#include <memory>

namespace
{
unsigned int region_size(unsigned int size)
{
    return std::max(size, MEM_MemoryConfiguration::GetInstance()->BaseBlockSize());
}

constexpr std::uint64_t kLeastFileInMb = 64;

std::uint64_t refuse_file(const char* form, std::uint64_t first, std::uint64_t second,
                          bool is_full = false)
{
    RegionLimits.MetSetting(form, first, second, is_full);
    return 0;
}

/// Whether a file of `mb` MB can be carved: its size in bytes has to fit 32 bits, and one region of
/// `region` bytes has to fit the file.
bool is_file_size(std::uint64_t mb, std::uint64_t region)
{
    constexpr std::uint64_t end = 4096;
    if (mb >= end)
        return refuse_file("temp files of less than %llu MB, where one of %llu MB is due", end, mb);
    return region <= BytesOfMb(mb) ||
           refuse_file("a temp file of %llu MB, where a region takes %llu bytes (BaseBlockSize)",
                       mb, region);
}
} // namespace

void* FileMapInfo::Handle()
{
    return nullptr;
}

RWCString FileMapInfo::Name()
{
    return m_name;
}

RWCString FileMapInfo::MappingName()
{
    return m_file->MappingName();
}

int FileBlock::CanAllocate(unsigned int size, unsigned int /*always_mapped*/,
                           unsigned int /*group_id*/, unsigned int /*alignment*/,
                           unsigned int* actual_size)
{
    return m_space_logic.CanAllocate(region_size(size), GetAllocationGranularity(), actual_size)
               ? 0
               : -1;
}

int FileBlock::Allocate(unsigned int size, unsigned int alignment, BaseInfo** result,
                        unsigned int /*always_mapped*/, unsigned int /*group_id*/,
                        unsigned int* actual_size)
{
    return carve(region_size(size), alignment, GetAllocationGranularity(), result, actual_size);
}

Mem_BlockKind FileBlock::KindAfter(unsigned int /*size*/, unsigned int /*always_mapped*/,
                                   unsigned int /*group_id*/) const
{
    return Kind();
}

File_ShmmHeap::File_ShmmHeap(const RWCString& temp_path) : m_temp_path(temp_path)
{
    MEM_MemoryConfiguration* const settings = MEM_MemoryConfiguration::GetInstance();
    m_file_size = settings->FileHeap_FileSizeInMb();
    m_max_total_space = settings->FileHeap_MaxTotalSpaceInMb();
    m_min_space_to_leave = settings->FileHeap_MinSpaceToLeaveInMb();
    m_temp_file_name = settings->FileHeap_TempFileName();
}

int File_ShmmHeap::Allocate(unsigned int size, unsigned int alignment, BaseInfo** result,
                            unsigned int /*always_mapped*/, unsigned int /*group_id*/)
{
    return ShmmHeap::Allocate(size, alignment, result, 0, 0);
}

/// The size in MB that a new file for a region of `size` bytes gets; 0 if the limits or the disk
/// refuse it.
std::uint64_t File_ShmmHeap::new_file_size(unsigned int size) const
{
    const std::uint64_t needed = WholeMb(size) + 1;
    const std::uint64_t wanted = std::max<std::uint64_t>(needed, m_file_size);
    const std::uint64_t current = m_current_space;
    if (current + needed > m_max_total_space)
        return refuse_file("temp files of %llu MB (FileHeap_MaxTotalSpaceInMb), %llu MB left",
                           m_max_total_space,
                           m_max_total_space - std::min<std::uint64_t>(current, m_max_total_space));
    const std::uint64_t left = m_max_total_space - current;
    double bytes = 0;
    if (!Zor_FileSystemUtils().GetFreeSpace(m_temp_path.data(), bytes))
        return refuse_file("there is no temp folder", 0, 0);
    const auto free = static_cast<std::uint64_t>(bytes / static_cast<double>(BytesOfMb(1)));
    if (free < m_min_space_to_leave + needed)
        return refuse_file("the temp folder's disk, %llu MB left, of which %llu MB are to stay "
                           "(FileHeap_MinSpaceToLeaveInMb)",
                           free, m_min_space_to_leave, true);
    const std::uint64_t available =
        free >= wanted + m_min_space_to_leave ? wanted : free - m_min_space_to_leave;
    const std::uint64_t mb = std::min(available, left);
    if (mb < kLeastFileInMb)
        return refuse_file("a temp file of at least %llu MB, for which %llu MB are left",
                           kLeastFileInMb, mb, mb == available);
    return is_file_size(mb, region_size(size)) ? mb : 0;
}

int File_ShmmHeap::make_file(const RWCString& unique_name, unsigned int bytes, Block** result)
{
    const RWCString name = BaseMapInfo::TempFileName(m_temp_file_name, unique_name);
    std::unique_ptr<FileInfo> file(create_file(m_temp_path + name, bytes));
    const int failure = file->AllocateFile();
    if (failure != 0)
        return failure;
    try {
        *result = create_block(file.get());
    } catch (...) {
        file->DestroyFile();
        throw;
    }
    static_cast<void>(file.release()); // the block owns it
    return 0;
}

int File_ShmmHeap::create_result_element(unsigned int size, Block** result,
                                         unsigned int /*always_mapped*/, unsigned int /*group_id*/)
{
    const std::uint64_t mb = new_file_size(size);
    if (mb == 0)
        return -1;
    const auto bytes = static_cast<unsigned int>(BytesOfMb(mb));
    Mem_NewName name;
    int failure = make_file(name.Text(), bytes, result);
    while (failure != 0 && name.TryAnother())
        failure = make_file(name.Text(), bytes, result);
    if (failure == 0)
        m_current_space += static_cast<unsigned int>(mb);
    return failure;
}

int File_ShmmHeap::create_result_element(unsigned int size, Block** result)
{
    return create_result_element(size, result, 0, 0);
}

std::uint64_t File_ShmmHeap::BytesOfFiles() const
{
    return BytesOfMb(m_current_space);
}

ShmmHeap::Store File_ShmmHeap::StoreOf(const BaseInfo&) const
{
    return &Mem_StoreStatus::temp_files;
}

bool File_ShmmHeap::HasMapping(const RWCString& name) const
{
    return std::any_of(m_blocks.begin(), m_blocks.end(), [&name](const Block& block) {
        return static_cast<FileInfo*>(block.GetMapInfo())->MappingName() == name;
    });
}

int File_ShmmHeap::destroy_element(Block* block)
{
    auto* const file = static_cast<FileInfo*>(block->GetMapInfo());
    const int result = file->DestroyFile();
    m_current_space -= static_cast<unsigned int>(WholeMb(file->Size()));
    delete file;
    return result;
}
