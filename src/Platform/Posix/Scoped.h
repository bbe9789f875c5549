#ifndef PLATFORM_POSIX_SCOPED_H
#define PLATFORM_POSIX_SCOPED_H

#include "Platform/KeepErrno.h"

#include <mutex>

#include <pthread.h>
#include <unistd.h>

/// Keeps the thread from being cancelled for a scope. A thread that is cancelled meanwhile ends at
/// the host's next such point.
class NoCancellation
{
public:
    NoCancellation() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_state); }
    ~NoCancellation() { pthread_setcancelstate(m_state, &m_state); }
    NoCancellation(const NoCancellation&) = delete;
    NoCancellation& operator=(const NoCancellation&) = delete;

private:
    int m_state = PTHREAD_CANCEL_ENABLE;
};

/// Holds a mutex for a scope, and keeps the thread from being cancelled: what it guards is never
/// left half done.
class WholeGuard
{
public:
    explicit WholeGuard(std::mutex& mutex) : m_lock(mutex) {}

private:
    const NoCancellation m_calm;
    const std::lock_guard<std::mutex> m_lock;
};

/// Owns a descriptor; negative means that there is none. Leaves errno alone at its end.
class ScopedFile
{
public:
    explicit ScopedFile(int descriptor) : m_descriptor(descriptor) {}
    ~ScopedFile()
    {
        const KeepErrno keep;
        if (m_descriptor >= 0)
            close(m_descriptor);
    }
    ScopedFile(const ScopedFile&) = delete;
    ScopedFile& operator=(const ScopedFile&) = delete;

    explicit operator bool() const { return m_descriptor >= 0; }
    int Get() const { return m_descriptor; }

private:
    const int m_descriptor;
};

#endif
