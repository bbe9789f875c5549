// What is left in the log and the dump file when memory is gone: hunts a report that is cut short,
// numbers of the wrong kind, and a file that grows for ever.

#include "Mem/Mem_MemPager.h"
#include "support/Children.h"
#include "support/FailingPlatform.h"
#include "support/PagerWorld.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

namespace
{
CHILD_TEST(Report, OfARefusedPieceAndOfTheAddressSpaceIsWholeAndBounded, InChild)
{
    char folder[] = "/var/tmp/mempager_report_XXXXXX";
    CHILD_CHECK(mkdtemp(folder) != nullptr);
    const std::string dump = std::string(folder) + "/mem_dump.log";
    std::ofstream(dump) << std::string(10485761, 'x');
    Zor_LogFile::SetLogConfigDir(folder);
    TestConfiguration::Scope configuration;
    LogCapture log(5);
    MEM_PagerInfo held, refused;
    CHILD_CHECK(MEM_MemPager::GetHandle()->Allocate(60000, &held, 0) == 0);
    if (const FailingPlatform full(FailingPlatform::Create, 1, 2); true)
        CHILD_CHECK(MEM_MemPager::GetHandle()->Allocate(1 << 20, &refused, 0) == -1);
    CHILD_CHECK(log.Count(5, "MEM_MemPager::PrintSharedMemoryStatus|") == 1); // cut to nothing
    CHILD_CHECK(log.Count(2, "MEM_MemPager::PrintSharedMemoryStatus|") == 3);
    MEM_MemPager::PrintVirtualMemoryStatus();
    CHILD_CHECK(log.Count(2, "MEM_MemPager::PrintVirtualMemoryStatus|") == 4);
    std::stringstream text;
    text << std::ifstream(dump).rdbuf();
    for (const char* const part :
         {"\n\n*****", "Shared Memory Debug Information for PID <", ">, Process Name <",
          "\nTime and Date:\t\t\t", "\nTotal Mapped = 65536; Total Cached = 0\n\n\n\n-----",
          " Source heap: Windows_Swap\n", "\n\nSystem Information:\nOSVersion: <Linux ",
          "MB>;\nTotal RAM Size: <", "\nUsed address space: "})
        CHILD_CHECK(text.str().find(part) != std::string::npos);
    std::filesystem::remove_all(folder);
    return text.str().find("xx") == std::string::npos ? 0 : 2;
}
} // namespace
