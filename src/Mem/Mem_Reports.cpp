#include "Mem/Mem_Reports.h"

#include "Mem/Mem_BlockTable.h"
#include "Mem/Mem_DumpFile.h"
#include "Mem/Mem_MemInfo.h"
#include "Mem/Mem_Settings.h"
#include "Mem/Mem_ShmmHeap.h"
#include "NRVlog/Zor_Log.h"
#include "Platform/Process.h"
#include "Platform/Units.h"
#include "Zor/Zor_StackTrace.h"
#include "Zor/Zor_System.h"

#include <cstdint>
#include <cstdio>
#include <iostream>
#include <locale>
#include <ostream>

namespace
{
constexpr char kSource[] = "src/Mem/Mem_MemPager";
constexpr char kSharedMemory[] = "MEM_MemPager::PrintSharedMemoryStatus";
constexpr char kAddressSpace[] = "MEM_MemPager::PrintVirtualMemoryStatus";
constexpr std::uint64_t kLongestDump = 10485760;
const char kSeventyStars[] =
    "**********************************************************************";

/// Logs a line of a report at level 2, whoever the report is for.
template <class... A>
void say(const char* source, const char* function, zor_log::Format<std::type_identity_t<A>...> line,
         A... arguments)
{
    const zor_log::Site site{source, function, __LINE__, 2};
    if (site.Wanted())
        zor_log::Write(site, line, arguments...);
}

/// These are the last words of a process in trouble: what they can't say, they leave out.
void without_throwing(const char* function, auto report) noexcept
{
    try {
        report();
    } catch (...) {
        say(kSource, function, "\tThere is no memory for the whole report\n");
    }
}

/// The path of the dump file, worked out by each report at its first run. There may be no memory
/// then. What is cut is still longer than any system opens, so that no other file is meant.
struct DumpPath {
    DumpPath()
    {
        std::snprintf(text, sizeof text, "%s/mem_dump.log", Zor_LogFile::GetLogConfigDir());
    }
    char text[4096 + 1];
};

void empty_dump_if_too_long(const char* function, const char* path)
{
    constexpr auto& zor_log_source = kSource;
    if (Platform::Process::Get().TruncateLongFile(path, kLongestDump))
        ZOR_LOG(function, 5,
                "mem_debug log file has reached it's maximal size. Truncating it...\n");
}

/// Writes the calls that led here to standard error, if the log's level asks for it.
void trace_calls_if_wanted()
{
    constexpr int code = 5610000; // this library's messages
    if (ZorGLog.GetLogLevel(code) >= 2)
        Zor_StackTrace::TraceStack(nullptr, nullptr, -1, 1);
}

void trace_and_point_to_dump(const char* function, const char* path)
{
    trace_calls_if_wanted();
    say(kSource, function, "\tSee debug information in: <%s>\n", path);
}

void write_record(std::ostream& dump, ShmmHeap& heap, Mem_Mapped mapped,
                  const Zor_OSMemoryInfo& machine)
{
    char name[256];
    char system[256];
    char time[64];
    Platform::Process::Get().ProcessName(name,
                                         sizeof name); // Zor_System would need memory for them
    Platform::Process::Get().SystemName(system, sizeof system);
    Platform::Process::Get().TimeAndDate(time, sizeof time);
    using std::endl; // line by line, so that as much as possible arrives
    dump << endl << endl << kSeventyStars << endl;
    dump << "Shared Memory Debug Information for PID <" << Platform::Process::Get().ProcessId()
         << ">, Process Name <" << name << ">" << endl;
    dump << "Time and Date:\t\t\t" << time << endl << endl;
    dump << "Total Mapped = " << mapped.total << "; Total Cached = " << mapped.cached << endl
         << endl;
    if (mapped.huge != 0)
        dump << "Mapped by huge pages = " << mapped.huge << endl << endl;
    heap.PrintStatus(dump);
    dump << endl << endl << "System Information:" << endl;
    dump << "OSVersion: <" << system << ">; Address Space Size: <" << machine.address_space
         << "MB>;" << endl;
    dump << "Total Swap Size: <" << machine.total_swap << "; Available Swap Size: <"
         << machine.available_swap << "MB>;" << endl;
    dump << "Total RAM Size: <" << machine.total_ram << "; Available RAM Size: <"
         << machine.available_ram << "MB>;" << endl;
    dump << endl << endl << endl << kSeventyStars << endl;
}

void tell_shared_memory(ShmmHeap& heap, const Zor_OSMemoryInfo& machine)
{
    const auto configured = SettingOrNone(&MEM_MemoryConfiguration::GetSwapMaxSizeInMb) +
                            SettingOrNone(&MEM_MemoryConfiguration::FileHeap_MaxTotalSpaceInMb);
    say(kSource, kSharedMemory,
        "\tMEM Shared memory estimated size: %dMB; Maximal (Configured) Shared memory size is "
        "%uMB\n",
        static_cast<int>(heap.GetSizeInMb()), static_cast<unsigned int>(configured));
    say(kSource, kSharedMemory, "\tMaximal OS Swap size: %IuMB, Available OS Swap size: %IuMB\n",
        machine.total_swap, machine.available_swap);
}

void record_shared_memory(ShmmHeap& heap, Mem_Mapped mapped, const Zor_OSMemoryInfo& machine)
{
    static const DumpPath path;
    empty_dump_if_too_long(kSharedMemory, path.text);
    Mem_DumpFile file(path.text);
    std::ostream dump(&file);
    dump.imbue(std::locale::classic()); // plain decimals, whatever the host's language
    write_record(dump, heap, mapped, machine);
    trace_and_point_to_dump(kSharedMemory, path.text);
}

/// Appends the details to the file `dump`, unless that is null. @return false, after a line that
/// says so, if the numbers can't be found out.
bool tell_address_space(const char* source, const char* function, const char* dump)
{
    Zor_System* const system = Zor_System::GetHandle();
    Zor_OSMemoryInfo machine;
    Zor_ProcessMemoryInfo process;
    system->GetOsMemInfo(machine);
    if (system->GetZorProcessMemoryInfo(process, 0, dump, false, nullptr) != 0) {
        say(source, function,
            "debug_print_memory_status: Couldn't get process memory information!\n");
        return false;
    }
    say(source, function,
        "\tProcess current used address space size: %.2fMB;  Maximal address space size: %IuMB\n",
        InMb(process.used_address_space), machine.address_space);
    say(source, function, "\tMaximal free memory block size: %.2fMB\n",
        InMb(process.largest_free_block));
    return true;
}

void tell_usage(Mem_Mapped mapped)
{
    if (mapped.total != 0)
        say(kSource, kAddressSpace,
            "\tMEM memory usage: User mapped shared memory: %.2fMB; Cached mapped shared memory: "
            "%.2fMB\n",
            InMb(mapped.total - mapped.cached), InMb(mapped.cached));
}
} // namespace

void ReportSharedMemory(ShmmHeap& heap, Mem_Mapped mapped) noexcept
{
    without_throwing(kSharedMemory, [&heap, mapped] {
        Zor_OSMemoryInfo machine;
        Zor_System::GetHandle()->GetOsMemInfo(machine);
        tell_shared_memory(heap, machine);
        record_shared_memory(heap, mapped, machine);
    });
}

void ReportAddressSpace(std::span<const Mem_Mapped> pagers) noexcept
{
    without_throwing(kAddressSpace, [pagers] {
        static const DumpPath path;
        empty_dump_if_too_long(kAddressSpace, path.text);
        if (!tell_address_space(kSource, kAddressSpace, path.text))
            return;
        for (const Mem_Mapped& mapped : pagers)
            tell_usage(mapped);
        trace_and_point_to_dump(kAddressSpace, path.text);
    });
}

namespace
{
/// Writes plain decimals to where another stream writes, which keeps the settings that its owner
/// gave it: its language, its number base, its widths.
class PlainStream : public std::ostream
{
public:
    explicit PlainStream(const std::ostream& other) : std::ostream(nullptr)
    {
        imbue(std::locale::classic()); // without a buffer, which would take the language over
        rdbuf(other.rdbuf());
    }
};
} // namespace

void PrintStatus(ShmmHeap& heap, Mem_Mapped mapped)
{
    using std::endl;
    PlainStream out(std::cout);
    out << "<<<----------------- MEM_MemPager::PrintStatus()--------------------->>>" << endl;
    out << "Total Mapped = " << mapped.total << " , Total Cached = " << mapped.cached << endl;
    if (mapped.huge != 0)
        out << "Mapped by huge pages = " << mapped.huge << endl;
    heap.PrintStatus(out);
    out << ">>>----------------- MEM_MemPager::PrintStatus()---------------------<<<" << endl;
}

void LogBlocks(const Mem_BlockTable& blocks)
{
    constexpr char function[] = "MEM_MemPager::debug_print_status";
    say(kSource, function, "START ***debug_print_status*** \n");
    for (int id = 0; id < blocks.Length(); ++id) {
        const RegisteredBlock* const block = blocks.Find(id);
        if (block == nullptr)
            say(kSource, function, "<%d> RegisteredBlock is NULL\n", id);
        else
            say(kSource, function, "<%Iu> %s,ref <%d>, m_ref <%d>, stat <%d>\n",
                static_cast<std::uint64_t>(id), block->owner->Name().data(), block->ref,
                block->m_ref(), block->stat());
    }
    say(kSource, function, "END ***debug_print_status*** \n");
}

void ReportAddressSpaceOf(const char* source, const char* function) noexcept
{
    without_throwing(function, [source, function] {
        tell_address_space(source, function, nullptr);
        trace_calls_if_wanted();
    });
}
