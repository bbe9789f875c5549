#include "Mem/Mem_Configuration.h"

#include "Mem/Mem_TempFolder.h"
#include "NRVlog/Zor_Log.h"
#include "Platform/Process.h"
#include "Platform/Units.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <optional>
#include <utility>

namespace
{
constexpr unsigned int kUnchanged = MEM_MemoryConfiguration_FileHeapParemeters::kUnchanged;

unsigned int default_cache_size_in_mb()
{
    Platform::Process& process = Platform::Process::Get();
    const std::uint64_t mb =
        WholeMb(std::min(process.MemoryLimit(), process.MemoryNow().address_space));
    if (mb <= 2048)
        return 500;
    return mb <= 3072 ? 1000 : 2000;
}

RWCString default_temp_path()
{
    return AbsoluteFolder(std::getenv("TEMP")); // an empty one is none
}

/// The environment's word on the cache size in MB, as it was when it was first asked for. Not its
/// text, which changes with the environment on some systems.
std::optional<std::int32_t> cache_size_of_environment()
{
    static const std::optional<std::int32_t> mb = [] {
        const char* const text = std::getenv("VORTELIX_CACHE_SIZE");
        return text != nullptr ? std::optional(static_cast<std::int32_t>(std::atoll(text)))
                               : std::nullopt;
    }();
    return mb;
}

void set_unless_unchanged(unsigned int& setting, unsigned int value)
{
    if (value != kUnchanged)
        setting = value;
}
} // namespace

MEM_MemoryConfiguration* MEM_MemoryConfiguration::s_MemConfig = nullptr;

MEM_MemoryConfiguration* MEM_MemoryConfiguration::GetInstance()
{
    // Several threads may find, at the same time, that a host has taken its settings away.
    const std::atomic_ref<MEM_MemoryConfiguration*> current(s_MemConfig);
    if (MEM_MemoryConfiguration* const instance = current.load(std::memory_order_acquire))
        return instance;
    auto* const fresh = new MEM_MemoryConfiguration;
    MEM_MemoryConfiguration* other = nullptr;
    if (current.compare_exchange_strong(other, fresh))
        return fresh;
    fresh->MEM_MemoryConfiguration::~MEM_MemoryConfiguration(); // it isn't virtual
    ::operator delete(fresh);
    return other;
}

void MEM_MemoryConfiguration::SetInstance(MEM_MemoryConfiguration* instance)
{
    MEM_MemoryConfiguration* const old = s_MemConfig;
    if (instance == old)
        return;
    s_MemConfig = instance;
    if (old == nullptr)
        return;
    // The object may be of a derived class: of another size, and with this one not at its front.
    void* const memory = dynamic_cast<void*>(old);
    old->MEM_MemoryConfiguration::~MEM_MemoryConfiguration();
    ::operator delete(memory);
}

MEM_MemoryConfiguration::MEM_MemoryConfiguration()
{
    MEM_MemoryConfiguration::SetCacheSize(default_cache_size_in_mb());
    m_temp_path = default_temp_path();
}

MEM_MemoryConfiguration::MEM_MemoryConfiguration(MEM_MemoryConfiguration&& other) noexcept
    // NOLINTNEXTLINE(performance-move-constructor-init): the numbers stay behind, the text goes
    : MEM_MemoryConfiguration(static_cast<const MEM_MemoryConfiguration&>(other))
{
    other.m_temp_path = RWCString();
}

MEM_MemoryConfiguration&
MEM_MemoryConfiguration::operator=(MEM_MemoryConfiguration&& other) noexcept
{
    const RWCString temp_path = m_temp_path;
    *this = static_cast<const MEM_MemoryConfiguration&>(other);
    other.m_temp_path = temp_path;
    return *this;
}

RWCString MEM_MemoryConfiguration::FileHeap_TempFileName()
{
    return RWCString("TempFile");
}

RWCString MEM_MemoryConfiguration::FileHeap_TempPath()
{
    return m_temp_path;
}

unsigned int MEM_MemoryConfiguration::FileHeap_FileSizeInMb()
{
    return m_file_size;
}

unsigned int MEM_MemoryConfiguration::FileHeap_MaxTotalSpaceInMb()
{
    return m_max_total_space;
}

unsigned int MEM_MemoryConfiguration::FileHeap_MinSpaceToLeaveInMb()
{
    return m_min_space_to_leave;
}

void MEM_MemoryConfiguration::SetFileHeapParmeters(
    MEM_MemoryConfiguration_FileHeapParemeters& params)
{
    if (params.TempFilePath.length() != 0)
        m_temp_path = AbsoluteFolder(params.TempFilePath);
    set_unless_unchanged(m_file_size, params.FileSizeInMb);
    set_unless_unchanged(m_max_total_space, params.MaxTotalSpaceInMb);
    set_unless_unchanged(m_min_space_to_leave, params.MinSpaceToLeaveInMb);
    ZOR_LOG("MEM_MemoryConfiguration::SetFileHeapParmeters", 6,
            "SetFileHeapParameters: TempFilePath=<%s>, FileSizeInMb=<%u>, "
            "MaxTotalSpaceInMb=<%u>, MinSpaceToLeaveInMb=<%u>\n",
            m_temp_path.data(), m_file_size, m_max_total_space, m_min_space_to_leave);
}

unsigned int MEM_MemoryConfiguration::GetSwapMaxSizeInMb()
{
    return m_swap_max_size;
}

void MEM_MemoryConfiguration::SetSwapMaxSizeInMb(unsigned int mb)
{
    m_swap_max_size = mb;
    ZOR_LOG("MEM_MemoryConfiguration::SetSwapMaxSizeInMb", 6,
            "SetSwapMaxSizeInMb: SwapMaxSizeInMb=<%u>\n", m_swap_max_size);
}

unsigned int MEM_MemoryConfiguration::BlockSizeThreshold()
{
    return m_block_size_threshold;
}

void MEM_MemoryConfiguration::SetBlockSizeThreshold(unsigned int bytes)
{
    m_block_size_threshold = bytes;
    ZOR_LOG("MEM_MemoryConfiguration::SetBlockSizeThreshold", 6,
            "SetBlockSizeThreshold: BlockSizeThreshold=<%u>\n", m_block_size_threshold);
}

unsigned int MEM_MemoryConfiguration::BaseBlockSize()
{
    return m_base_block_size;
}

void MEM_MemoryConfiguration::SetBaseBlockSize(unsigned int mb)
{
    if (mb != kUnchanged)
        m_base_block_size = static_cast<unsigned int>(BytesOfMb(mb)) + 65536;
    ZOR_LOG("MEM_MemoryConfiguration::SetBaseBlockSize", 6,
            "SetBaseBlockSize: BaseBlockSize=<%u>\n", m_base_block_size);
}

unsigned long long MEM_MemoryConfiguration::HeapCacheInBytes()
{
    return m_cache_size;
}

void MEM_MemoryConfiguration::SetCacheSize(unsigned int mb)
{
    const std::optional<std::int32_t> environment = cache_size_of_environment();
    const std::int64_t wanted = environment ? *environment : std::int64_t{mb};
    m_cache_size = BytesOfMb(static_cast<std::uint64_t>(wanted));
    ZOR_LOG("MEM_MemoryConfiguration::SetCacheSize", 6, "SetCacheSize: CacheSize=<%Iu>\n",
            m_cache_size);
}

unsigned int MEM_MemoryConfiguration::PrefetchSize()
{
    return m_prefetch_size;
}

void MEM_MemoryConfiguration::SetPrefetchSize(unsigned int bytes)
{
    m_prefetch_size = bytes;
    ZOR_LOG("MEM_MemoryConfiguration::SetPrefetchSize", 6, "SetPrefetchSize: PrefetchSize=<%u>\n",
            m_prefetch_size);
}

unsigned long long MEM_MemoryConfiguration::UnmapWorkingSetLimit()
{
    return m_unmap_working_set_limit;
}

void MEM_MemoryConfiguration::SetUnmapWorkingSetLimit(unsigned int bytes)
{
    m_unmap_working_set_limit = bytes;
}
