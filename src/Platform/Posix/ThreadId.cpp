#include "Platform/Posix/ThreadId.h"

#include <ace/Thread.h>

long CurrentThreadId()
{
    return static_cast<long>(ACE_Thread::self());
}
