#include "Zor/Zor_System.h"

#include "Platform/AddressSpaceUse.h"
#include "Platform/Process.h"
#include "Platform/Units.h"
#include "Zor/Zor_MemoryDetails.h"

Zor_System* Zor_System::GetHandle()
{
    static Zor_System system;
    return &system;
}

int Zor_System::GetOsMemInfo(Zor_OSMemoryInfo& info)
{
    const Platform::Process::Memory memory = Platform::Process::Get().MemoryNow();
    info.address_space = WholeMb(memory.address_space);
    info.total_ram = WholeMb(memory.total);
    info.total_swap = WholeMb(memory.swap);
    info.available_ram = WholeMb(memory.available);
    info.available_swap = WholeMb(memory.available_swap);
    return 0;
}

RWCString Zor_System::GetOsName()
{
    char name[256];
    Platform::Process::Get().SystemName(name, sizeof name);
    return RWCString(name);
}

int Zor_System::GetCurrentProcessInfo(unsigned long& id, RWCString& name)
{
    char text[256];
    Platform::Process::Get().ProcessName(text, sizeof text);
    name = text;
    id = static_cast<unsigned long>(Platform::Process::Get().ProcessId());
    return 0;
}

int Zor_System::GetZorProcessMemoryInfo(Zor_ProcessMemoryInfo& info, int, const char* path, bool,
                                        Zor_ProcessMemoryInfoEx*)
{
    Platform::AddressSpaceUse use;
    if (!use.Read(Platform::Process::Get()))
        return -1;
    info.used_address_space = use.Used();
    info.largest_free_block = use.LargestFree();
    if (path != nullptr)
        AppendMemoryDetails(path, info);
    return 0;
}
