#include "Platform/Windows/Files.h"

#include "Platform/Windows/Scoped.h"

FolderOf::FolderOf(const char* path)
{
    std::snprintf(text, sizeof text, "%.*s", static_cast<int>(LastPart(path) - path), path);
}

Holder HolderOf(const char* path)
{
    const DWORD kind = GetFileAttributesA(path);
    if (kind == INVALID_FILE_ATTRIBUTES)
        return Holder::Unknown;
    if ((kind & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT)) != 0)
        return Fail(ERROR_INVALID_PARAMETER), Holder::Unknown;
    const ScopedHandle file(
        CreateFileA(path, DELETE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                    OPEN_EXISTING, FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
    if (file)
        return Holder::Gone;
    return GetLastError() == ERROR_SHARING_VIOLATION ? Holder::Lives : Holder::Unknown;
}

const char* LastPart(const char* path)
{
    const char* last = path;
    for (const char* at = path; *at != '\0'; ++at)
        if (*at == '\\' || *at == '/' || *at == ':')
            last = at + 1;
    return last;
}
