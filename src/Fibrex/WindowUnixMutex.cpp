#include "Fibrex/WindowUnixMutex.h"

#if defined(_WIN32)

#include "Platform/SystemLock.h"

void FibrexSystemLock::lock() noexcept
{
    Platform::TakeSystemLock(m_word);
}

bool FibrexSystemLock::try_lock() noexcept
{
    return Platform::TryToTakeSystemLock(m_word);
}

void FibrexSystemLock::unlock() noexcept
{
    Platform::ReleaseSystemLock(m_word);
}

#endif
