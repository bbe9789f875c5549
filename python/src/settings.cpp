#include "settings.h"

#include "call.h"

#include "Mem/Mem_Configuration.h"
#include "Mem/Mem_MemPager.h"
#include "Mem/Mem_Status.h"
#include "NRVlog/Zor_LogFile.h"

#include <string>

namespace py = pybind11;

namespace mempager::python
{
namespace
{
constexpr int kLibraryCode = 5610000; // of the library's own lines

py::tuple status(bool with_resident)
{
    Mem_Status now;
    Mem_StoreStatus stores;
    unlocked([&] {
        MEM_MemPager::GetHandle()->GetCurrentStatus(now);
        return MEM_MemPager::GetStoreStatus(stores, with_resident);
    });
    const py::object resident =
        stores.resident_is_known ? py::object(py::int_(stores.resident)) : py::none();
    return py::make_tuple(now.blocks_count, now.local_blocks_count, now.local_blocks_size,
                          now.local_pieces_size, now.foreign_blocks_size, now.foreign_pieces_size,
                          now.total_mapped, now.total_cached, stores.shared_memory.reserved,
                          stores.spare_files.reserved, stores.temp_files.reserved, resident);
}

unsigned long long clear_cache()
{
    return unlocked([] { return MEM_MemPager::GetHandle()->ClearCache(); });
}

MEM_MemoryConfiguration& configuration()
{
    return *MEM_MemoryConfiguration::GetInstance();
}

py::dict settings()
{
    MEM_MemoryConfiguration& now = configuration();
    py::dict all;
    all["cache_mb"] = now.HeapCacheInBytes() >> 20;
    all["shared_memory_mb"] = now.GetSwapMaxSizeInMb();
    all["temp_folder"] = std::string(now.FileHeap_TempPath().data());
    all["temp_file_mb"] = now.FileHeap_FileSizeInMb();
    all["temp_total_mb"] = now.FileHeap_MaxTotalSpaceInMb();
    all["temp_spare_mb"] = now.FileHeap_MinSpaceToLeaveInMb();
    all["log_level"] = ZorGLog.GetLogLevel(kLibraryCode);
    return all;
}

void set_temp_files(const py::object& folder, unsigned int file_mb, unsigned int total_mb,
                    unsigned int spare_mb)
{
    MEM_MemoryConfiguration_FileHeapParemeters wanted;
    if (!folder.is_none())
        wanted.TempFilePath = folder.cast<std::string>().c_str();
    wanted.FileSizeInMb = file_mb;
    wanted.MaxTotalSpaceInMb = total_mb;
    wanted.MinSpaceToLeaveInMb = spare_mb;
    configuration().SetFileHeapParmeters(wanted);
}
} // namespace

void add_process(py::module_& module)
{
    module.def("status", &status);
    module.def("clear_cache", &clear_cache);
    module.def("settings", &settings);
    module.def("set_cache_mb", [](unsigned int mb) { configuration().SetCacheSize(mb); });
    module.def("set_shared_memory_mb",
               [](unsigned int mb) { configuration().SetSwapMaxSizeInMb(mb); });
    constexpr unsigned int unchanged = MEM_MemoryConfiguration_FileHeapParemeters::kUnchanged;
    module.def("set_temp_files", &set_temp_files, py::arg("folder") = py::none(),
               py::arg("file_mb") = unchanged, py::arg("total_mb") = unchanged,
               py::arg("spare_mb") = unchanged);
    module.def("set_log_level", [](int level) { ZorGLog.SetLogLevel(kLibraryCode, level); });
}
} // namespace mempager::python
