#include "Zor/Zor_FileSystemUtils.h"

#include "Platform/Platform.h"

bool Zor_FileSystemUtils::GetFreeSpace(const char* path, double& bytes) const
{
    return Platform::Get().FreeSpace(path, &bytes);
}
