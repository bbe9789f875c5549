// Names and leftovers, with real processes, folders and users: hunts a file that is made elsewhere
// after a change of folder, a name that somebody keeps or plants to bar a process, and room that
// the dead take for ever.

#include "Mem/Mem_Configuration.h"
#include "Mem/Mem_Inspection.h"
#include "Mem/Mem_MemPager.h"
#include "posix/support/Children.h"
#include "support/FailingPlatform.h"
#include "support/PagerWorld.h"
#include "support/ThisProcess.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <list>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>

namespace
{
namespace fs = std::filesystem;
constexpr unsigned MiB = 1 << 20;

long Count(const std::string& folder)
{
    return std::distance(fs::directory_iterator(folder), {});
}

struct Pieces : std::list<MEM_PagerInfo> {
    bool Add(unsigned size, int count = 1)
    {
        for (; count != 0; --count)
            if (MEM_MemPager::GetHandle()->Allocate(size, &emplace_back(), 0) != 0)
                return pop_back(), false;
        return true;
    }
};

/// Leaves `count` regions behind in shared memory.
bool Die(int count)
{
    return -SIGKILL == InChild([count] {
        CHILD_CHECK((new Pieces)->Add(8 * MiB, count));
        return raise(SIGKILL);
    });
}

/// Regions, temp files and spare files made in one folder, of which the process then leaves.
int StayIn(const std::string& first, const std::string& second, unsigned swap_mb,
           bool by_environment)
{
    CHILD_CHECK(chdir(first.c_str()) == 0);
    if (by_environment)
        setenv("TEMP", ".", 1);
    Configure(swap_mb, by_environment ? "" : "./");
    {
        Pieces pieces;
        CHILD_CHECK(pieces.Add(8 * MiB));
        CHILD_CHECK(chdir(second.c_str()) == 0);
        CHILD_CHECK(pieces.Add(8 * MiB, 9));
        CHILD_CHECK(Count(first) > 1);
    }
    CHILD_CHECK(Count(first) == 0);
    CHILD_CHECK(Count(second) == 0);
    return 0;
}

TEST(ARelativeTempFolder, StaysTheOneThatItWas)
{
    const TempFolder first, second;
    for (const bool by_environment : {true, false})
        for (const unsigned swap_mb : {0u, 1500u}) { // temp files, spare files
            const int code = InChildAmongOwnMounts([&] {
                CHILD_CHECK(Mount("tmpfs", "/dev/shm", "size=10m"));
                return StayIn(first.path, second.path, swap_mb, by_environment);
            });
            SKIP_IF_NOT_PERMITTED(code);
            EXPECT_EQ(code, 0) << by_environment << ", shared memory: " << swap_mb;
        }
}

CHILD_TEST(ADeadCreatorsName, GoesAlthoughAReaderHoldsItsFile, InChildAmongOwnMounts)
{
    CHILD_CHECK(Mount("tmpfs", "/dev/shm"));
    CHILD_CHECK(Die(1));
    CHILD_CHECK(Count("/dev/shm") == 1);
    const std::string name = fs::directory_iterator("/dev/shm")->path();
    const int reader = open(name.c_str(), O_RDONLY);
    CHILD_CHECK(flock(reader, LOCK_SH) == 0);
    CHILD_CHECK(InChild([] { // where renames know no flags
                    RefuseCall(SYS_renameat2, 4, RENAME_NOREPLACE);
                    return Pieces().Add(4) ? 0 : 2;
                }) == 0);
    CHILD_CHECK(Count("/dev/shm") == 0); // under no other name either
    return 0;
}

CHILD_TEST(TheRoomOfTheDead, IsUsedAgainLongAfterTheFirstCleanUp, InChildAmongOwnMounts)
{
    CHILD_CHECK(Mount("tmpfs", "/dev/shm", "size=64m"));
    Configure(1500, "/dev/shm"); // no disk to go to
    Pieces pieces;
    CHILD_CHECK(pieces.Add(4));
    CHILD_CHECK(Die(5));
    CHILD_CHECK(pieces.Add(30 * MiB));
    return 0;
}

/// Counts the names that are judged.
struct Judged final : ForwardingMappings {
    bool RemoveDeadMapping(const char* folder, const char* name) override
    {
        ++count;
        usleep(100); // as where removals take their time
        return m_real.RemoveDeadMapping(folder, name);
    }
    int count = 0;
};

CHILD_TEST(ManyPlantedNames, CostNoProcessMoreThanItsShare, InChildAmongOwnMounts)
{
    constexpr int planted = 3000;
    CHILD_CHECK(Mount("tmpfs", "/dev/shm"));
    for (int name = 0; name < planted; ++name)
        CHILD_CHECK(symlink("/nowhere",
                            ("/dev/shm/NorvaneMemoryBlock_7_1_" + std::to_string(name)).c_str()) ==
                    0);
    Judged judged;
    Pieces pieces;
    CHILD_CHECK(pieces.Add(4));
    CHILD_CHECK(judged.count < planted / 2);
    for (int more = 0; more < 1000 && judged.count < planted; ++more)
        CHILD_CHECK(Pieces().Add(8 * MiB));
    CHILD_CHECK(judged.count >= planted);
    return 0;
}

CHILD_TEST(ANameOfAProcessThatDroppedItsRights, GoesByTheNextOneThatMayRemoveIt,
           InChildAmongOwnMounts)
{
    CHILD_CHECK(Mount("tmpfs", "/dev/shm", "mode=1777"));
    if (geteuid() != 0)
        return not_permitted;
    CHILD_CHECK(0 == InChild([]() -> int {
                    CHILD_CHECK((new Pieces)->Add(4));
                    CHILD_CHECK(setuid(65534) == 0);
                    std::exit(0);
                }));
    CHILD_CHECK(Count("/dev/shm") == 1); // the folder is sticky and the name root's
    CHILD_CHECK(InChild([]() -> int { return Pieces().Add(4) ? 0 : 2; }) == 0);
    CHILD_CHECK(Count("/dev/shm") == 0);
    return 0;
}

CHILD_TEST(NamesAtLogout, GoOrStayAsTheLoginManagerIsSet, InChildAmongOwnMounts)
{
    struct {
        const char *file, *text, *answer;
    } const cases[] = {
        {"/run/x", "", "stay: systemd isn't running here"},
        {"/run/systemd/system/x", "", "go with the last session of "},
        {"/etc/systemd/logind.conf", "[Login]\n#RemoveIPC=1\n RemoveIPC = no\n",
         "RemoveIPC is off"},
        {"/run/systemd/logind.conf.d/5.conf", "RemoveIPC=yes", "go with"},
        {"/etc/systemd/logind.conf.d/5.conf", "RemoveIPC=off", "RemoveIPC is off"}, // in its stead
        {"/etc/systemd/logind.conf.d/6.conf", "RemoveIPC=on", "go with"},
        {"/var/lib/systemd/linger/1500", "", "stay: 1500 lingers"}};
    for (const char* const folder : {"/run", "/etc", "/var/lib"})
        CHILD_CHECK(Mount("tmpfs", folder));
    CHILD_CHECK(setreuid(1500, 0) == 0);
    for (const auto& each : cases) {
        fs::create_directories(fs::path(each.file).parent_path());
        CHILD_CHECK(std::ofstream(each.file) << each.text << std::flush);
        CHILD_CHECK(std::ranges::any_of(
            Mem_Inspection::Examine("/var/tmp"), [&](const Mem_Inspection::Finding& finding) {
                return finding.value.find(each.answer) != std::string::npos;
            }));
    }
    return 0;
}
} // namespace
