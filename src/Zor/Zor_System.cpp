#include "Zor/Zor_System.h"

#include "Platform/Platform.h"
#include "Zor/Zor_MemoryDetails.h"

namespace
{
std::uint64_t in_mb(std::uint64_t bytes)
{
    return bytes >> 20;
}

} // namespace

Zor_System* Zor_System::GetHandle()
{
    static Zor_System system;
    return &system;
}

int Zor_System::GetOsMemInfo(Zor_OSMemoryInfo& info)
{
    const Platform::Machine machine = Platform::Get().MachineMemory();
    info.address_space = in_mb(Platform::Get().AddressSpace());
    info.total_ram = in_mb(machine.memory);
    info.total_swap = in_mb(machine.swap);
    info.available_ram = in_mb(machine.available_memory);
    info.available_swap = in_mb(machine.available_swap);
    return 0;
}

RWCString Zor_System::GetOsName()
{
    char name[256];
    Platform::Get().SystemName(name, sizeof name);
    return RWCString(name);
}

int Zor_System::GetCurrentProcessInfo(unsigned long& id, RWCString& name)
{
    char text[256];
    Platform::Get().ProcessName(text, sizeof text);
    name = text;
    id = static_cast<unsigned long>(Platform::Get().ProcessId());
    return 0;
}

int Zor_System::GetZorProcessMemoryInfo(Zor_ProcessMemoryInfo& info, int, const char* path, bool,
                                        Zor_ProcessMemoryInfoEx*)
{
    if (!Platform::Get().AddressSpaceUse(info.used_address_space, info.largest_free_block))
        return -1;
    if (path != nullptr)
        AppendMemoryDetails(path, info);
    return 0;
}
