#include "Platform/SystemLock.h"

#include "Platform/Windows/System.h"

namespace
{

SRWLOCK* lock_in(void*& word)
{
    static_assert(sizeof(SRWLOCK) == sizeof(void*));
    return reinterpret_cast<SRWLOCK*>(&word);
}

} // namespace

void Platform::TakeSystemLock(void*& word) noexcept
{
    AcquireSRWLockExclusive(lock_in(word));
}

bool Platform::TryToTakeSystemLock(void*& word) noexcept
{
    return TryAcquireSRWLockExclusive(lock_in(word)) != 0;
}

void Platform::ReleaseSystemLock(void*& word) noexcept
{
    ReleaseSRWLockExclusive(lock_in(word));
}
