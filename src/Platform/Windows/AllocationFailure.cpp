#include "Platform/Windows/AllocationFailure.h"

#include "Platform/AllocationFailure.h"
#include "Platform/KeepErrno.h"
#include "Platform/Windows/Process.h"
#include "Platform/Windows/System.h"

#include <new>

namespace
{

/// What the C runtime calls when `operator new`, or in the new mode also malloc, fails. It must not
/// throw; 0 gives up.
int on_malloc_failure(std::size_t size)
{
    const KeepErrno keep;
    return HelpMalloc(size) ? 1 : 0;
}

void on_new_failure()
{
    if (!HelpNew())
        throw std::bad_alloc();
}

/// A C runtime, by the names under which it has its handler and its new mode.
struct Runtime {
    const char* dll;
    const char* set_handler;
    const char* set_mode;
};

constexpr Runtime runtimes[] = {
    {"msvcrt.dll", "?_set_new_handler@@YAP6AH_K@ZP6AH0@Z@Z", "?_set_new_mode@@YAHH@Z"},
    {"ucrtbase.dll", "_set_new_handler", "_set_new_mode"},
};

template <class Function>
Function find(const char* dll, const char* name)
{
    const HMODULE module = GetModuleHandleA(dll);
    return module == nullptr
               ? nullptr
               : reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(module, name)));
}

/// Whatever runtimes the process has: the host's need not be this library's.
void hook(const Runtime& runtime)
{
    using Handler = int (*)(std::size_t);
    const auto set_handler = find<Handler (*)(Handler)>(runtime.dll, runtime.set_handler);
    const auto set_mode = find<int (*)(int)>(runtime.dll, runtime.set_mode);
    if (set_handler == nullptr || set_mode == nullptr)
        return;
    set_handler(on_malloc_failure);
    set_mode(1);
}

/// The host's allocations may come back here at any time.
void stay_loaded()
{
    HMODULE self = nullptr;
    GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_PIN | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                       reinterpret_cast<const char*>(&stay_loaded), &self);
}

} // namespace

void WindowsProcess::OnAllocationFailure(AllocationHandler handler)
{
    stay_loaded();
    SetAllocationHandler(handler);
    std::set_new_handler(on_new_failure);
#if defined(MEMPAGER_HOOK_MALLOC)
    for (const Runtime& runtime : runtimes)
        hook(runtime);
#endif
}

bool MallocComesByHere() noexcept
{
#if defined(MEMPAGER_HOOK_MALLOC)
    for (const Runtime& runtime : runtimes)
        if (const auto mode =
                find<int (*)()>(runtime.dll, runtime.set_mode[0] == '?' ? "?_query_new_mode@@YAHXZ"
                                                                        : "_query_new_mode");
            mode != nullptr)
            return true;
#endif
    return false;
}
