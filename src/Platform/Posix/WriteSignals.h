#ifndef PLATFORM_POSIX_WRITESIGNALS_H
#define PLATFORM_POSIX_WRITESIGNALS_H

#include <signal.h>

/// Keeps the signals from this thread, for a scope, that the system sends to who writes into a pipe
/// that nobody reads or past the limit of a file's size: the failed call tells it, and a host that
/// doesn't expect them would end. The host's handlers stay, and no other thread notices. Signals
/// of these kinds that others have sent stay pending. Allocates nothing; errno stays as it is.
class NoWriteSignals
{
public:
    NoWriteSignals();
    ~NoWriteSignals();
    NoWriteSignals(const NoWriteSignals&) = delete;
    NoWriteSignals& operator=(const NoWriteSignals&) = delete;

private:
    sigset_t m_mask;    ///< the host's
    sigset_t m_pending; ///< before
};

#endif
