#include "Platform/Windows/Process.h"
#include "Platform/Windows/Views.h"

#include "Platform/Windows/System.h"

#include <psapi.h>

namespace
{

using Map = Platform::Process::Map;

constexpr DWORD writable =
    PAGE_READWRITE | PAGE_WRITECOPY | PAGE_EXECUTE_READWRITE | PAGE_EXECUTE_WRITECOPY;
constexpr DWORD executable =
    PAGE_EXECUTE | PAGE_EXECUTE_READ | PAGE_EXECUTE_READWRITE | PAGE_EXECUTE_WRITECOPY;

Map::Kind kind_of(const MEMORY_BASIC_INFORMATION& map, std::uintptr_t own_stack)
{
    static constinit const void* stack = nullptr; // where this thread's begins
    const auto begin = reinterpret_cast<std::uintptr_t>(map.BaseAddress);
    if (map.Type == MEM_MAPPED && IsNotedView(map.AllocationBase))
        return Map::Kind::View;
    if (map.Type != MEM_PRIVATE)
        return Map::Kind::File;
    if (begin <= own_stack && own_stack - begin < map.RegionSize)
        stack = map.AllocationBase;
    return map.AllocationBase == stack ? Map::Kind::Stack : Map::Kind::Anonymous;
}

/// The name of what is mapped, in the system's own form; none for what lies in the paging file.
template <std::size_t N>
std::string_view name_of(const MEMORY_BASIC_INFORMATION& map, char (&text)[N])
{
    wchar_t wide[1024];
    const DWORD length =
        GetMappedFileNameW(GetCurrentProcess(), map.BaseAddress, wide, std::size(wide));
    const int size = WideCharToMultiByte(CP_ACP, 0, wide, static_cast<int>(length), text,
                                         static_cast<int>(N), nullptr, nullptr);
    return {text, length != 0 && size > 0 ? static_cast<std::size_t>(size) : 0};
}

Map map_of(const MEMORY_BASIC_INFORMATION& map, std::uintptr_t own_stack)
{
    const bool is_accessible =
        map.State == MEM_COMMIT && (map.Protect & (PAGE_NOACCESS | PAGE_GUARD)) == 0;
    Map result;
    result.begin = reinterpret_cast<std::uintptr_t>(map.BaseAddress);
    result.size = map.RegionSize;
    result.readable = is_accessible && map.Protect != PAGE_EXECUTE;
    result.writable = is_accessible && (map.Protect & writable) != 0;
    result.executable = is_accessible && (map.Protect & executable) != 0;
    result.shared = map.Type == MEM_MAPPED;
    result.kind = kind_of(map, own_stack);
    return result;
}

} // namespace

/// An open mapping takes no addresses here.
bool WindowsProcess::ListMaps(Maps& maps)
{
    char name[2048];
    const auto own_stack = reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0));
    MEMORY_BASIC_INFORMATION at{};
    const char* next = nullptr;
    while (VirtualQuery(next, &at, sizeof at) == sizeof at) {
        next = static_cast<const char*>(at.BaseAddress) + at.RegionSize;
        if (at.State == MEM_FREE)
            continue;
        Map map = map_of(at, own_stack);
        if (map.kind == Map::Kind::File)
            map.name = name_of(at, name);
        maps.Take(map);
    }
    return next != nullptr;
}
