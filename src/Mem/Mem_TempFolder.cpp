#include "Mem/Mem_TempFolder.h"

#include "Mem/Mem_Configuration.h"
#include "NRVlog/Zor_Log.h"
#include "Platform/Inspection.h"
#include "Platform/LastError.h"

RWCString AbsoluteFolder(const RWCString& folder)
{
    char path[4096];
    Platform::Inspection& platform = Platform::Inspection::Get();
    if (folder.isNull())
        return platform.DefaultTempFolder();
    if (platform.AbsolutePath(folder.data(), path, sizeof path))
        return folder == path ? folder : RWCString(path); // which shares its bytes
    ZOR_LOG("AbsoluteFolder", 3,
            "The temp folder <%s> depends on the current folder, which can't be told (Errno "
            "[%lu])\n",
            folder.data(), Platform::LastError());
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

std::string TempFolderOr(const char* folder)
{
    const bool is_given = folder != nullptr && *folder != '\0';
    const RWCString absolute = AbsoluteFolder(
        is_given ? folder : MEM_MemoryConfiguration::GetInstance()->FileHeap_TempPath());
    return {absolute.data(), absolute.length()};
}
