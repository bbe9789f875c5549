#include "Zor/Zor_FileSystemUtils.h"

#include "Platform/Inspection.h"

bool Zor_FileSystemUtils::GetFreeSpace(const char* path, double& bytes) const
{
    return Platform::Inspection::Get().FreeSpace(path, &bytes);
}
