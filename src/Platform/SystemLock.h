#ifndef PLATFORM_SYSTEMLOCK_H
#define PLATFORM_SYSTEMLOCK_H

namespace Platform
{

// The system's smallest lock, in a word that is null at first, for systems where std::mutex can't
// be constant-initialised; others don't define these. None allocates.

void TakeSystemLock(void*& word) noexcept;
bool TryToTakeSystemLock(void*& word) noexcept;
void ReleaseSystemLock(void*& word) noexcept;

} // namespace Platform

#endif
