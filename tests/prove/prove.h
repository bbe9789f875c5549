#ifndef PROVE_PROVE_H
#define PROVE_PROVE_H

#include "Mem/Mem_Inspection.h"
#include "NRVlog/Zor_LogFile.h"
#include "posix/support/Children.h"
#include "support/ThisProcess.h"

#include <cstdlib>
#include <filesystem>
#include <string>

#include <sys/mman.h>

/// What the programs of scripts/prove have in common. Each is called as `PROGRAM AMOUNT SEED`, ends
/// with 0 if what it shows holds, and prints a line "= figure" and a line "left NUMBER".
namespace Prove
{

/// A process that may mount has folders of its own, so that others leave no names there.
inline bool MountOwn(const char* options = "mode=1777")
{
    return unshare(CLONE_NEWNS) == 0 &&
           mount("", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           Mount("tmpfs", "/dev/shm", options);
}

/// Names in both folders, those of dead processes and of living ones.
inline long Names(const std::string& temp)
{
    long names = 0;
    for (const std::string& folder : {std::string("/dev/shm"), temp})
        for (const auto& entry : std::filesystem::directory_iterator(folder))
            names += entry.path().filename().string().find("NorvaneMemory") != std::string::npos;
    return names;
}

/// What a later process does for the dead. @return the names that are left then.
inline long NamesAfterASweep(const std::string& temp)
{
    InChild([&temp] { return Mem_Inspection::Clean(false, temp.c_str()), 0; });
    return Names(temp);
}

/// Memory that is shared with children, all 0.
inline void* SharedPage()
{
    return mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
}

/// Nothing is written, but each line is put together.
inline void QuietLog(const std::string& folder)
{
    Zor_LogFile::SetLogConfigDir(folder.c_str());
    ZorGLog.SetLogLevel(5);
    ZorGLog.SetSink([](const Zor_LogRecord&) {});
}

} // namespace Prove

#endif
