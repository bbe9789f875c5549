#ifndef PROVE_PROVE_H
#define PROVE_PROVE_H

#include "Mem/Mem_Inspection.h"
#include "Mem/Mem_MemFragmentsAllocator.h"
#include "Mem/Mem_MemPager.h"
#include "NRVlog/Zor_LogFile.h"
#include "posix/support/Children.h"
#include "support/PagerWorld.h"
#include "support/ThisProcess.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>

#include <sys/mman.h>

/// What the programs of scripts/prove have in common. Each is called as `PROGRAM AMOUNT SEED`, ends
/// with 0 if what it shows holds, and prints a line "= figure" and a line "left NAMES".
namespace Prove
{

/// A process that may mount has folders of its own, so that others leave no names there.
inline bool MountOwn(const char* options = "mode=1777")
{
    return unshare(CLONE_NEWNS) == 0 &&
           mount("", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           Mount("tmpfs", "/dev/shm", options);
}

/// Small regions, little cache, and a log where each line is put together and none is written.
inline void Settle(unsigned swap_mb, const std::string& temp)
{
    static const TestConfiguration::Scope configuration;
    TestConfiguration::cache_limit = 2 * 65536 - 1;
    TestConfiguration::trim_limit = 1;
    Configure(swap_mb, temp);
    Zor_LogFile::SetLogConfigDir(temp.c_str());
    ZorGLog.SetLogLevel(7);
    ZorGLog.SetSink([](const Zor_LogRecord&) {});
}

/// Names in both folders, of dead processes and of living ones.
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

/// Memory that is shared with children that are forked later.
template <class Content>
Content& Share()
{
    return *new (mmap(nullptr, sizeof(Content), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
                      -1, 0)) Content{};
}

inline unsigned Number(const char* text)
{
    return static_cast<unsigned>(std::stoul(text));
}

/// What one who lives at random has.
struct Life {
    explicit Life(unsigned seed) : random(seed) {}
    unsigned Below(unsigned end) { return static_cast<unsigned>(random()) % end; }

    std::minstd_rand random;
    MEM_MemPager* const pager = MEM_MemPager::GetHandle();
    MEM_PagerInfo pieces[24];
    Mem_MemFragmentsAllocator buffer{1000, 10, 4000};
};

/// A piece is full of one byte.
inline void Fill(const MEM_PagerInfo& info, std::size_t byte)
{
    std::memset(info.Ptr(), static_cast<int>(byte), info.Size());
}
inline bool IsFullOf(const MEM_PagerInfo& info, std::size_t byte)
{
    const auto* const first = static_cast<const unsigned char*>(info.Ptr());
    const auto is = [byte](unsigned char one) { return one == static_cast<unsigned char>(byte); };
    return std::all_of(first, first + info.Size(), is);
}

} // namespace Prove

#endif
