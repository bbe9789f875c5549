// Runs the benchmarks of this folder, and says in the report what they were built with.

#include <benchmark/benchmark.h>

#include <fstream>
#include <string>
#include <thread>

#include <unistd.h>

namespace
{
#if defined(__clang__)
constexpr char kCompiler[] = "clang " __clang_version__;
#else
constexpr char kCompiler[] = "GCC " __VERSION__;
#endif

/// The C library leaves the locks of a process out that never had a second thread. Programs that
/// need the library's locks have one.
void start_second_thread()
{
    std::thread(pause).detach();
}
/// What the system says of the first processor's largest cache; two threads that meet in a cache
/// hand a lock over faster than through memory.
std::string sharing_the_last_cache()
{
    std::string shared = "unknown";
    for (int level = 0; level < 8; ++level) {
        std::ifstream list("/sys/devices/system/cpu/cpu0/cache/index" + std::to_string(level) +
                           "/shared_cpu_list");
        std::getline(list, shared);
    }
    return shared;
}
} // namespace

int main(int argc, char** argv)
{
    start_second_thread();
    benchmark::AddCustomContext("compiler", kCompiler);
    benchmark::AddCustomContext("processors that share a cache with the first",
                                sharing_the_last_cache());
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
