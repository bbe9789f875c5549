#include "Platform/Posix/Fork.h"

#include "Platform/Posix/Mappings.h"
#include "Platform/Posix/Process.h"
#include "Platform/Posix/TimeZone.h"

#include <pthread.h>

constinit std::mutex DescriptorsMutex;

namespace
{

void before_fork()
{
    const NoCancellation calm;
    RememberTimeZone();
    DescriptorsMutex.lock();
}

void after_fork_in_parent()
{
    DescriptorsMutex.unlock();
}

void after_fork_in_child()
{
    KeepTimeZone();
    PosixMappings::Instance().Disown();
    DescriptorsMutex.unlock();
}

} // namespace

void PrepareForks()
{
    static const int registered =
        pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child);
    static_cast<void>(registered);
}

bool PosixProcess::OnFork(void (*prepare)(), void (*parent)(), void (*child)())
{
    return pthread_atfork(prepare, parent, child) == 0;
}
