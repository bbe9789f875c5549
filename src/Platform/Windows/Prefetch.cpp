#include "Platform/Windows/Failure.h"
#include "Platform/Windows/Mappings.h"

// The system brings pages into memory ahead of their touch. It has no huge pages for memory that is
// shared without a right that hardly anybody has.

namespace
{

/// As the system has it from its version 6.2 on.
struct Stretch {
    void* begin;
    SIZE_T size;
};

using PrefetchCall = BOOL(WINAPI*)(HANDLE process, ULONG_PTR count, const Stretch* stretches,
                                   ULONG flags);

PrefetchCall find_call()
{
    const HMODULE kernel = GetModuleHandleA("kernel32.dll");
    return kernel == nullptr ? nullptr
                             : reinterpret_cast<PrefetchCall>(reinterpret_cast<void*>(
                                   GetProcAddress(kernel, "PrefetchVirtualMemory")));
}

} // namespace

/// Memory that nothing has been written to has no pages yet that could be brought.
bool WindowsMappings::Prefetch(void* bytes, std::uint64_t size, Access access)
{
    static const PrefetchCall prefetch = find_call();
    if (prefetch == nullptr || access == Access::First)
        return Reported(Fail(ERROR_NOT_SUPPORTED));
    const Stretch stretch{bytes, size};
    return size == 0 || Reported(prefetch(GetCurrentProcess(), 1, &stretch, 0) != 0);
}

std::uint64_t WindowsMappings::HugeBytes(const ViewSet&)
{
    return 0;
}

void WindowsMappings::PreferHugePages(void*, std::uint64_t) {}
