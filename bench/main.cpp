// Runs the benchmarks of this folder, and says in the report what they were built with.

#include <benchmark/benchmark.h>

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
} // namespace

int main(int argc, char** argv)
{
    start_second_thread();
    benchmark::AddCustomContext("compiler", kCompiler);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
