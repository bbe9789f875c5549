#include "Platform/Posix/Descriptors.h"

#include "Platform/Posix/Scoped.h"

#include <fcntl.h>
#include <unistd.h>

namespace
{

constexpr int first_of_our_own = STDERR_FILENO + 1;

bool makes_a_new_file(int flags)
{
    return (flags & O_EXCL) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
}

int raised(int descriptor, int flags)
{
    const ScopedFile low(descriptor);
    const int high = Duplicate(descriptor);
    if (high >= 0 && makes_a_new_file(flags) && ftruncate(high, 0) != 0) {
        const ScopedFile unusable(high);
        return -1;
    }
    return high;
}

} // namespace

int OpenDescriptor(const char* path, int flags, mode_t mode)
{
    const int descriptor = open(path, flags | O_CLOEXEC, mode);
    return descriptor < 0 || descriptor >= first_of_our_own ? descriptor
                                                            : raised(descriptor, flags);
}

int Duplicate(int descriptor)
{
    return fcntl(descriptor, F_DUPFD_CLOEXEC, first_of_our_own);
}
