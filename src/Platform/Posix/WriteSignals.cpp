#include "Platform/Posix/WriteSignals.h"

#include "Platform/Posix/Scoped.h"

#include <ctime>

#include <unistd.h>

namespace
{

constexpr int kinds[] = {SIGPIPE, SIGXFSZ};

/// The thread's own come first, so this is one that a write here has caused, if there was any.
/// What the system sends for a write bears this process's id.
void take_back(int kind)
{
    sigset_t wanted;
    siginfo_t taken{};
    const timespec at_once{};
    sigemptyset(&wanted);
    sigaddset(&wanted, kind);
    if (sigtimedwait(&wanted, &taken, &at_once) == kind && taken.si_pid != getpid())
        kill(getpid(), kind); // another process sent it to this one just now
}

} // namespace

NoWriteSignals::NoWriteSignals()
{
    const KeepErrno keep;
    sigset_t blocked;
    sigemptyset(&blocked);
    for (const int kind : kinds)
        sigaddset(&blocked, kind);
    pthread_sigmask(SIG_BLOCK, &blocked, &m_mask);
    sigpending(&m_pending);
}

NoWriteSignals::~NoWriteSignals()
{
    const KeepErrno keep;
    const NoCancellation calm; // the wait is a point where a thread can be
    sigset_t pending;
    sigpending(&pending);
    for (const int kind : kinds)
        if (sigismember(&pending, kind) != 0 && sigismember(&m_pending, kind) == 0)
            take_back(kind);
    pthread_sigmask(SIG_SETMASK, &m_mask, nullptr);
}
