#include "Mem/Mem_TempFolder.h"

#include "Mem/Mem_Configuration.h"
#include "NRVlog/Zor_Log.h"
#include "Platform/Platform.h"

RWCString AbsoluteFolder(const RWCString& folder)
{
    char path[4096];
    Platform& platform = Platform::Get();
    if (folder.isNull())
        return platform.DefaultTempFolder();
    if (platform.AbsolutePath(folder.data(), path, sizeof path))
        return folder == path ? folder : RWCString(path); // which shares its bytes
    ZOR_LOG("AbsoluteFolder", 3,
            "The temp folder <%s> depends on the current folder, which can't be told (Errno "
            "[%lu])\n",
            folder.data(), platform.LastError());
    return folder;
}

RWCString TempFolder()
{
    struct Known {
        RWCString told;
        RWCString absolute;
    };
    static auto& known = *new Known;
    const RWCString told = MEM_MemoryConfiguration::GetInstance()->FileHeap_TempPath();
    if (known.absolute.isNull() || !(told == known.told))
        known = {told, AbsoluteFolder(told)};
    return known.absolute;
}
