#ifndef PLATFORM_POSIX_SCOPED_H
#define PLATFORM_POSIX_SCOPED_H

#include <cerrno>

#include <unistd.h>

/// Keeps clean-up from hiding the cause of a failure.
class KeepErrno
{
public:
    KeepErrno() : m_errno(errno) {}
    ~KeepErrno() { errno = m_errno; }
    KeepErrno(const KeepErrno&) = delete;
    KeepErrno& operator=(const KeepErrno&) = delete;

private:
    const int m_errno;
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
