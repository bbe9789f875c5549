#ifndef PLATFORM_POSIX_FAILURE_H
#define PLATFORM_POSIX_FAILURE_H

/// Keeps errno as the cause of this thread's last failing operation, and remembers the limit that
/// it stands for, if it does.
void KeepCause();

/// Passes an operation's result on and keeps the cause if it is a failure.
template <class Result>
Result Reported(Result result)
{
    if (!result)
        KeepCause();
    return result;
}

#endif
