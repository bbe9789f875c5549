// The program `mempager`, run by a shell among living and killed processes and what others put in
// its way. Hunts the removal of what lives or was never the library's, a look that changes
// something, output that isn't what it claims to be, and success that is none.

#include "Mem/Mem_Configuration.h"
#include "Mem/Mem_MemPager.h"
#include "posix/support/Children.h"
#include "support/ThisProcess.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <filesystem>
#include <fstream>
#include <set>

#include <sys/stat.h>

namespace
{
namespace fs = std::filesystem;
const std::string name = "/dev/shm/NorvaneMemoryBlock_";

struct Answer {
    bool Tells(const char* part) const { return text.find(part) != text.npos; }
    int code = -1;
    std::string text;
};

Answer Ask(const std::string& arguments, const std::string& setting = "")
{
    Answer answer;
    FILE* const output = popen((setting + MEMPAGER_TOOL " 2>&1 " + arguments).c_str(), "r");
    for (int byte = getc(output); byte != EOF; byte = getc(output))
        answer.text += static_cast<char>(byte);
    answer.code = WEXITSTATUS(pclose(output));
    return answer;
}

std::set<fs::path> Names(const char* temp)
{
    std::set<fs::path> names;
    for (const char* const folder : {"/dev/shm", temp})
        names.insert(fs::directory_iterator(folder), fs::directory_iterator());
    return names;
}

/// A process, stopped, with a region in shared memory, one without room there, and a temp file.
pid_t StartOwner()
{
    const pid_t owner = StartChild([] {
        MEM_MemoryConfiguration_FileHeapParemeters files{"", 64, 640, 0};
        MEM_MemoryConfiguration::GetInstance()->SetFileHeapParmeters(files);
        MEM_PagerInfo pieces[3];
        for (MEM_PagerInfo& piece : pieces) {
            MEM_MemoryConfiguration::GetInstance()->SetSwapMaxSizeInMb(&piece == pieces + 2 ? 0
                                                                                            : 99);
            CHILD_CHECK(MEM_MemPager::GetHandle()->Allocate(8 << 20, &piece, 0) == 0);
        }
        return raise(SIGSTOP);
    });
    waitpid(owner, nullptr, WUNTRACED);
    return owner;
}

CHILD_TEST(Tool, TellsAndRemovesExactlyWhatTheDeadHaveLeft, InChildAmongOwnMounts)
{
    char temp[] = "/var/tmp/mempager_tool_XXXXXX";
    CHILD_CHECK(mkdtemp(temp) != nullptr, setenv("TEMP", temp, 1) == 0);
    CHILD_CHECK(chmod(temp, 0755) == 0, Mount("tmpfs", "/dev/shm", "size=16m"));
    const pid_t living = StartOwner();
    CHILD_CHECK(Mount("tmpfs", "/dev/shm", "size=24m", MS_REMOUNT));
    const pid_t killed = StartOwner();
    CHILD_CHECK(EndByKill(killed));
    const std::string file = temp + std::string("/own_NorvaneMemoryBlock_1_1_0");
    CHILD_CHECK(std::ofstream(file) << "x", std::ofstream(name + "1_1_\x1b[2J\n\"\xff") << "x");
    CHILD_CHECK(symlink(file.c_str(), (name + "1_1_0").c_str()) == 0);
    CHILD_CHECK(lchown((name + "1_1_0").c_str(), 65534, 65534) == 0); // can't mean root's file
    const std::string report = temp + std::string("/reportNorvaneMemoryBlock_1_1_0");
    CHILD_CHECK(std::ofstream(report) << "x");
    CHILD_CHECK(symlink(report.c_str(), (name + "1_1_3").c_str()) == 0);
    CHILD_CHECK(std::ofstream(temp + std::string("/TempFileNorvaneMemoryBlock_1_1_0.bak")) << "x");
    CHILD_CHECK(mkfifo((name + "1_1_1").c_str(), 0666) == 0, fs::create_directory(name + "1_1_2"));

    std::set<fs::path> names = Names(temp);
    const nlohmann::json told = nlohmann::json::parse(Ask("ls --json").text);
    CHILD_CHECK(told["alive"] == told["dead"], told["dead"]["count"] == 3);
    CHILD_CHECK(told["dead"]["bytes"] == 2 * 8454144 + (64 << 20));
    const Answer once = Ask("ls --json --temp /dev/shm/."); // the rest is found by its links
    CHILD_CHECK(nlohmann::json::parse(once.text)["dead"] == told["dead"]);
    for (const auto& entry : told["entries"]) {
        CHILD_CHECK((entry["process"] == killed) == (entry["state"] == "dead"));
        CHILD_CHECK((entry["program"] == "system_tests") == (entry["state"] == "alive"));
    }
    CHILD_CHECK(Ask("ls").Tells("; 6 not this library's.\n"), !Ask("ls").Tells("\x1b"));
    CHILD_CHECK(Ask("doctor").Tells("--shm-size=15"), Ask("clean --dry-run").code == 0);
    const int of_another_user = InChild([] { // unless that user can't get to the program
        const bool can_ask = setuid(65534) == 0 && Ask("-h").code == 0;
        return can_ask ? Ask("clean").code : 1;
    });
    CHILD_CHECK(of_another_user == 1);
    CHILD_CHECK(Names(temp) == names);
    CHILD_CHECK(nlohmann::json::parse(Ask("clean --json").text)["removed"] == told["dead"]);
    CHILD_CHECK(5 == std::erase_if(names, [killed](const std::string& path) {
                    return path.find("Block_" + std::to_string(killed) + "_") != path.npos;
                }));
    CHILD_CHECK(Names(temp) == names, Ask("clean").Tells("Nothing is left over.\n"));
    const pid_t next = StartOwner(); // which cleans up by the same rule
    CHILD_CHECK(EndByKill(next));
    CHILD_CHECK(Ask("clean").code == 0, Names(temp) == names);
    CHILD_CHECK(kill(living, SIGKILL) == 0);
    return fs::remove_all(temp) == 6 ? 0 : 2;
}

CHILD_TEST(Tool, EndsWithACodeThatScriptsCanTrust, InChildAmongOwnMounts)
{
    CHILD_CHECK(Mount("tmpfs", "/dev/shm"));
    for (const char* const lost : {"ls >/dev/full", "-h >/dev/full", "ls >&-"})
        CHILD_CHECK(Ask(lost).code == 3);
    CHILD_CHECK(Ask("doctor", "ulimit -f 9; ").Tells("at most 0 MB, 1024 MB wanted"));
    CHILD_CHECK(Ask("doctor", "TEMP= ").Tells("/var/tmp")); // as unset
    CHILD_CHECK(Ask("doctor").Tells(" MB free, 10240 MB wanted and 512 MB to be left"));
    // Half a MB more than 2 and 3 GB of addresses count as these, which the default cache goes by.
    CHILD_CHECK(is_sanitized || Ask("doctor", "ulimit -v 2097664; ").Tells(", 509 MB wanted"));
    CHILD_CHECK(is_sanitized || Ask("doctor", "ulimit -v 3146240; ").Tells(", 1009 MB wanted"));
    return Ask("doctor", "ulimit -f 9; ").code == 1 ? 0 : 2;
}
} // namespace
