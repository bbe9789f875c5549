#include "Mem/Mem_LastWords.h"

#include "Mem/Mem_Units.h"
#include "NRVlog/Zor_Log.h"
#include "Zor/Zor_StackTrace.h"
#include "Zor/Zor_System.h"

bool ReportAddressSpace(const char* source, const char* function, const char* dump)
{
    Zor_System* const system = Zor_System::GetHandle();
    Zor_OSMemoryInfo machine;
    Zor_ProcessMemoryInfo process;
    system->GetOsMemInfo(machine);
    const bool is_known = system->GetZorProcessMemoryInfo(process, 0, dump, false, nullptr) == 0;
    const zor_log::Site site{source, function, __LINE__, 2};
    if (!site.Wanted())
        return is_known;
    if (!is_known) {
        zor_log::Write(site,
                       "debug_print_memory_status: Couldn't get process memory information!\n");
        return false;
    }
    zor_log::Write(site,
                   "\tProcess current used address space size: %.2fMB;  Maximal address space "
                   "size: %IuMB\n",
                   InMb(process.used_address_space), machine.address_space);
    zor_log::Write(site, "\tMaximal free memory block size: %.2fMB\n",
                   InMb(process.largest_free_block));
    return true;
}

void TraceCallsIfWanted()
{
    constexpr int code = 5610000; // this library's messages
    if (ZorGLog.GetLogLevel(code) >= 2)
        Zor_StackTrace::TraceStack(nullptr, nullptr, -1, 1);
}
