// Ends a hundred processes while threads of theirs are inside the library, as a host meets it:
// hunts an end that waits for a lock which a thread that is no more has held.
#include "Mem/Mem_MemPager.h"
#include "NRVlog/Zor_LogFile.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

namespace
{
[[noreturn]] void UseForEver(MEM_MemPager& pager)
{
    for (MEM_PagerInfo piece;;) {
        pager.Allocate(1000, &piece, 0);
        piece.Unmap();
        pager.ClearCache();
        piece.Map();
    }
}

void EndWithThreadsInside(int number)
{
    ZorGLog.SetLogLevel(2);
    for (int n = 0; n < 4; ++n)
        std::thread([n] {
            UseForEver(n < 2 ? *MEM_MemPager::GetHandle() : *MEM_MemPager::GetHandleForMP());
        }).detach();
    std::this_thread::sleep_for(std::chrono::microseconds(500 * number));
}
} // namespace

int main(int argc, char** argv)
{
    if (argc == 2)
        return EndWithThreadsInside(std::atoi(argv[1])), 0;
    int failures = 0;
    for (int number = 0; number < 100; ++number)
        if (std::system((std::string(argv[0]) + " " + std::to_string(number)).c_str()) != 0)
            ++failures;
    std::printf("%d of 100 didn't end as they should\n", failures);
    return failures == 0 ? 0 : 1;
}
