#ifndef PLATFORM_KEEPERRNO_H
#define PLATFORM_KEEPERRNO_H

#include <cerrno>

/// Keeps clean-up, and whatever else goes on on the side, from hiding the cause of a failure.
class KeepErrno
{
public:
    KeepErrno() noexcept : m_errno(errno) {}
    ~KeepErrno() { errno = m_errno; }
    KeepErrno(const KeepErrno&) = delete;
    KeepErrno& operator=(const KeepErrno&) = delete;

private:
    const int m_errno;
};

#endif
