#ifndef ZOR_ZOR_FILESYSTEMUTILS_H
#define ZOR_ZOR_FILESYSTEMUTILS_H

#include "mempager_export.h"

#if defined(_WIN32)
#undef GetFreeSpace // windows.h has it as a macro, for a call of 16-bit days
#endif

/// Questions about file systems. Threads: any. Never throws.
class MEMPAGER_EXPORT Zor_FileSystemUtils
{
public:
    /// Sets `bytes` to what this user can still write to the disk that holds `path`, a folder.
    /// @return whether that could be found out; `bytes` stays as it was if not.
    bool GetFreeSpace(const char* path, double& bytes) const;
};

#endif
