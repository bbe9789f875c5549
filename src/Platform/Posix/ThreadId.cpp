#include "Platform/Posix/ThreadId.h"

#include <bit>

#include <pthread.h>

long CurrentThreadId()
{
    return std::bit_cast<long>(pthread_self()); // a number here, an address elsewhere
}
