#ifndef PLATFORM_POSIX_FORK_H
#define PLATFORM_POSIX_FORK_H

#include "Platform/Posix/Scoped.h"

#include <mutex>
#include <new>

/// Guards the list of mappings, and is held while a descriptor is open, so that no forked child
/// gets one. Under it nothing is allocated: the handler of a failing allocation may come back here
/// to make room.
extern constinit std::mutex DescriptorsMutex;

/// Holds that mutex for a scope, in which nobody forks, and keeps the thread from being cancelled:
/// what is done under it is never left half done.
class NoFork
{
private:
    const NoCancellation m_calm;
    const std::lock_guard<std::mutex> m_lock{DescriptorsMutex};
};

/// Registers what this folder does around each fork, once.
void PrepareForks();

/// The only object of a class, made at the first call in static storage and never destroyed.
template <class Class>
Class& OnlyOne()
{
    alignas(Class) static unsigned char place[sizeof(Class)];
    static Class* const made = [] {
        PrepareForks(); // before those that are registered by its operations
        return new (place) Class;
    }();
    return *made;
}

#endif
