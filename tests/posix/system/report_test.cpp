// What is left in the log and the dump file when memory is gone: hunts a report that is cut short,
// needs memory itself, or writes without end, over another file, or between another's lines.

#include "Mem/Mem_MemPager.h"
#include "Platform/Posix/AllocationFailure.h"
#include "posix/support/Children.h"
#include "support/FailingNew.h"
#include "support/Footprint.h"
#include "support/PagerWorld.h"
#include "support/ThisProcess.h"

#include <gtest/gtest.h>

#include <fstream>
#include <regex>

#include <sys/mman.h>
#include <sys/stat.h>

namespace
{
struct LogFolder : TempFolder {
    const std::string dump = path + "/mem_dump.log";
};

/// A pattern for each line; one that begins with "+" is for one or more.
const std::string details = R"(
Process Memory Information for PID <\d+>
Used address space: \d+MB; Largest free block: \d+MB; Address space limit: \d+MB
Mappings: \d+ of at most \d+
Of this library: 2\d views of regions, 5\d0.0MB; [23]\d anchors, 0.1MB
Others: \d+, \d+\.\dMB
The largest others:
          MB  Address      Access What
+ +\d+\.\d  [0-9a-f]{12} [r-][w-][x-][ps]   \S.*
)";
const std::string record = R"(

\*{70}
Shared Memory Debug Information for PID <\d+>, Process Name <system_tests>
Time and Date:\t\t\t\w{3} \w{3} [ \d]\d \d\d:\d\d:\d\d \d{4}


Total Mapped = \d+; Total Cached = \d+
+(Mapped by huge pages = \d+)?
-+ ShmmHeap::PrintStatus\(\)-+
+ Block Info:| Source heap: Windows_\w+| group_id: 0 .*|  Block space .*KB|\t\w+ Chunk \d+, Size \d+, Offset \d+|
usage summery

 Source heap: Undefined
    fix block total size     0MB total use: 0MB  not used:  0
    non fix block total size [\d.]+MB total use: [\d.]+MB  not used:  [\d.]+


System Information:
OSVersion: <Linux .*>; Address Space Size: <\d+MB>;
Total Swap Size: <\d+; Available Swap Size: <\d+MB>;
Total RAM Size: <\d+; Available RAM Size: <\d+MB>;



\*{70}
)";
const std::string failure =
    "+\\w+: (Process couldn't|Process is|An allocation|Either a|Shared|\tTried to).*\n";
const std::string limit = "\\w+: \tA limit stands in the way: address space of 600 MB .*MB left\n";
const std::string ending = "+.*\\[0x[0-9a-f]+\\]\nStatus: \tSee debug information in: <.*>\n";
const std::string virtual_report = R"(Status: \tProcess .* \d+.\d\dMB;  Maximal .* size: 600MB
Status: \tMaximal free memory block size: \d+.\d\dMB
Status: \tMEM memory usage: User mapped .*: 5\d0.00MB; Cached mapped .*: 0.00MB
)" + ending;
const std::string shared_report = R"(Status: \tMEM .* size: 5\d0MB; Maximal .* size is 11740MB
Status: \tMaximal OS Swap size: \d+MB, Available OS Swap size: \d+MB
)" + ending;

/// The first line of a file that isn't what the patterns say; "" if there is none.
std::string Mismatch(const std::string& file, const std::string& patterns)
{
    std::ifstream lines(file);
    std::istringstream wanted(patterns);
    std::string line, pattern;
    std::getline(lines, line);
    while (std::getline(wanted, pattern)) {
        const bool repeats = pattern.starts_with('+');
        const std::regex regex("(mempager [23] .*)?" + pattern.substr(repeats ? 1 : 0));
        int count = 0;
        for (; lines && (repeats || count == 0) && std::regex_match(line, regex); ++count)
            std::getline(lines, line);
        if (count == 0)
            return line + " <-> " + pattern;
    }
    return lines ? line : "";
}

/// Fills the address space with mapped pieces, and then to the last page.
int LiveToTheEnd(const LogFolder& logs, bool needs_new)
{
    static MEM_PagerInfo pieces[31], *last = pieces;
    CHILD_CHECK(std::freopen((logs.dump + "2").c_str(), "a", stderr) != nullptr);
    Zor_LogFile::SetLogConfigDir(logs.path.c_str());
    Limit(RLIMIT_AS, 600 << 20);
    while (MEM_MemPager::GetHandle()->Allocate(20 << 20, last, 0) == 0)
        ++last;
    const FailingNew none(needs_new ? ~0ull : 1, ~0ull);
    CHILD_CHECK(::operator new(300 << 20, std::nothrow) == nullptr);
    while (mmap(nullptr, 1, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0) != MAP_FAILED)
        continue;
    if (needs_new)
        return MEM_MemPager::GetHandle()->Allocate(10 << 20, last, 0) == -1 ? 0 : 2;
    MEM_MemPager::GetHandle()->PrintSharedMemoryStatus();
    return 0;
}

TEST(Report, IsWholeAtTheRealEndAndNeedsNoMemory)
{
    if (!MallocComesByHere())
        GTEST_SKIP() << "a sanitizer takes more address space";
    for (const bool needs_new : {true, false}) {
        const LogFolder logs;
        EXPECT_EQ(InChild([&] { return LiveToTheEnd(logs, needs_new); }), 0);
        EXPECT_EQ("", Mismatch(logs.dump, details + details + record));
        EXPECT_EQ("", Mismatch(logs.dump + "2",
                               failure + limit + virtual_report + failure + virtual_report +
                                   (needs_new ? failure + limit : "") + shared_report));
    }
}

TEST(Report, MakesDoWithAnyDumpFile)
{
    const std::pair<const char*, const char*> made_and_left[] = {
        {"rmdir $D", "! test -e $D"},
        {"touch $F; chmod 600 $F", "! test -s $F"},
        {"mkdir $F", "test -d $F"},
        {"truncate -s 10485761 ${F}x; ln -s ${F}x $F", "test $(stat -c%s ${F}x) = 10485761"},
        {"mkfifo $F", "test -p $F"},
        {"mount -t tmpfs -o size=4k none $D; head -c 4k /dev/zero > $D/x", "! test -s $F"},
        {"prlimit --pid $PPID --fsize=9", "! test -s $F"}, // a signal would end the process
        {"truncate -s 10485760 $F", "test $(stat -c%s $F) -gt 10485760"},
        {"truncate -s 10485761 $F", "test $(stat -c%s $F) -lt 10000"},
    };
    for (const auto& now : made_and_left) {
        const LogFolder logs;
        const std::string set = std::string("umask 0; D=") + logs.path + " F=" + logs.dump + "; ";
        const int code = InChildAmongOwnMounts([&] {
            CHILD_CHECK(std::system((set + now.first).data()) == 0);
            Zor_LogFile::SetLogConfigDir(logs.path.c_str());
            LogCapture log(5);
            const Footprint before = Footprint::Now();
            CHILD_CHECK(seteuid(65534) == 0);
            MEM_MemPager::PrintVirtualMemoryStatus(); // makes the pagers that it asks
            CHILD_CHECK(log.Count(5, "MEM_MemPager::set_new_memory_handler") == 1);
            CHILD_CHECK(std::system((set + now.second).data()) == 0);
            MEM_MemPager::GetHandle()->PrintSharedMemoryStatus();
            CHILD_CHECK(log.Count(2, "") == 6);
            return Footprint::Now() == before ? 0 : 2;
        });
        SKIP_IF_NOT_PERMITTED(code);
        EXPECT_EQ(code, 0) << now.first;
    }
}

TEST(Report, OfSeveralProcessesKeepsItsLines)
{
    const LogFolder logs;
    const auto report = [&logs] {
        Zor_LogFile::SetLogConfigDir(logs.path.c_str());
        LogCapture quiet(0);
        MEM_PagerInfo pieces[300]; // which a record doesn't tell in one go
        for (MEM_PagerInfo& piece : pieces)
            MEM_MemPager::GetHandle()->Allocate(1000, &piece, 0);
        for (int i = 0; i < 40; ++i)
            MEM_MemPager::GetHandle()->PrintSharedMemoryStatus();
        return 0;
    };
    const pid_t other = StartChild(report);
    EXPECT_EQ(InChild(report), 0);
    EXPECT_EQ(EndOfChild(other), 0);
    const std::string any = std::regex_replace(record, std::regex("\n\\+?"), "|");
    EXPECT_EQ("", Mismatch(logs.dump, "+" + any));
}
} // namespace
