// What the hook for malloc costs a host that never runs out of memory: pairs of malloc and free
// through the library's definition, and, in the same run, through the C library's own.

#include "Mem/Mem_MemPager.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>

namespace
{
using Malloc = void* (*)(std::size_t);

// Both are called through a pointer that the compiler can't see through, so that neither is
// inlined or left out.
Malloc volatile hooked = std::malloc;
Malloc volatile plain = nullptr;

void Pairs(benchmark::State& state, Malloc allocate)
{
    const auto size = static_cast<std::size_t>(state.range(0));
    for (auto _ : state) {
        void* const memory = allocate(size);
        benchmark::DoNotOptimize(memory);
        std::free(memory);
    }
}

void BM_Plain(benchmark::State& state)
{
    Pairs(state, plain);
}

void BM_Hooked(benchmark::State& state)
{
    Pairs(state, hooked);
}

BENCHMARK(BM_Plain)->Arg(64)->Arg(4096)->Arg(65536);
BENCHMARK(BM_Hooked)->Arg(64)->Arg(4096)->Arg(65536);
} // namespace

int main(int argc, char** argv)
{
    MEM_MemPager::GetHandle(); // installs the handler
    void* const libc = dlopen("libc.so.6", RTLD_NOW | RTLD_NOLOAD);
    plain = reinterpret_cast<Malloc>(dlsym(libc, "malloc"));
    if (plain == nullptr || plain == hooked) {
        std::fprintf(stderr, "malloc isn't hooked here: nothing to compare\n");
        return 1;
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
