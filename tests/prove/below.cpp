#include "prove/below.h"

#include <cerrno>
#include <cstdarg>
#include <cstddef>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

using Stat = struct stat;
using Statx = struct statx;
using Statvfs = struct statvfs;
using Size = std::size_t;
using Path = const char*;

// clang-format off
/// What is only passed on: its result, failure, error, name, parameters and arguments.
#define PLAIN(X) \
    X(void*, MAP_FAILED, ENOMEM, mmap, (void* a, Size s, int p, int f, int d, off_t o) noexcept, (a, s, p, f, d, o)) \
    X(int, -1, ENOMEM, munmap, (void* a, Size s) noexcept, (a, s)) \
    X(int, -1, EAGAIN, madvise, (void* a, Size s, int v) noexcept, (a, s, v)) \
    X(int, -1, ENOSPC, fallocate, (int d, int m, off_t o, off_t s), (d, m, o, s)) \
    X(int, -1, EIO, ftruncate, (int d, off_t s) noexcept, (d, s)) \
    X(int, -1, EIO, fstat, (int d, Stat* s) noexcept, (d, s)) \
    X(int, -1, EACCES, stat, (Path p, Stat* s) noexcept, (p, s)) \
    X(int, -1, EACCES, lstat, (Path p, Stat* s) noexcept, (p, s)) \
    X(int, -1, EACCES, statx, (int d, Path p, int f, unsigned m, Statx* s) noexcept, (d, p, f, m, s)) \
    X(int, -1, EIO, statvfs, (Path p, Statvfs* s) noexcept, (p, s)) \
    X(int, -1, EIO, fstatvfs, (int d, Statvfs* s) noexcept, (d, s)) \
    X(int, -1, ENOSPC, linkat, (int d, Path p, int e, Path q, int f) noexcept, (d, p, e, q, f)) \
    X(int, -1, ENOSPC, link, (Path p, Path q) noexcept, (p, q)) \
    X(int, -1, ENOSPC, symlink, (Path p, Path q) noexcept, (p, q)) \
    X(int, -1, EACCES, unlink, (Path p) noexcept, (p)) \
    X(int, -1, EACCES, rename, (Path p, Path q) noexcept, (p, q)) \
    X(int, -1, EACCES, renameat2, (int d, Path p, int e, Path q, unsigned f) noexcept, (d, p, e, q, f)) \
    X(int, -1, EACCES, access, (Path p, int m) noexcept, (p, m)) \
    X(int, -1, EACCES, faccessat, (int d, Path p, int m, int f) noexcept, (d, p, m, f)) \
    X(ssize_t, -1, EACCES, readlink, (Path p, char* b, Size s) noexcept, (p, b, s)) \
    X(ssize_t, -1, EIO, read, (int d, void* b, Size s), (d, b, s)) \
    X(ssize_t, -1, EIO, write, (int d, const void* b, Size s), (d, b, s)) \
    X(ssize_t, -1, EIO, getdents64, (int d, void* b, Size s) noexcept, (d, b, s)) \
    X(off_t, -1, EIO, lseek, (int d, off_t o, int w) noexcept, (d, o, w)) \
    X(int, -1, EPERM, fchmod, (int d, mode_t m) noexcept, (d, m)) \
    X(ssize_t, -1, EAGAIN, getrandom, (void* b, Size s, unsigned f), (b, s, f)) \
    X(int, -1, EPERM, kill, (pid_t p, int s) noexcept, (p, s))
#define OTHERS(X) X(, , EMFILE, open, , ) X(, , EIO, close, , ) X(, , ENOLCK, fcntl, , ) X(, , ENOMEM, mremap, , ) X(, , ENOMEM, malloc, , )
#define KIND(result, failure, error, name, parameters, arguments) kind_##name,
#define NAME(result, failure, error, name, parameters, arguments) #name,
#define ERROR(result, failure, error, name, parameters, arguments) error,
// clang-format on

namespace
{
enum Kind { PLAIN(KIND) OTHERS(KIND) count };
constexpr int errors[] = {PLAIN(ERROR) OTHERS(ERROR)};

bool armed = false;
int failing_kind = -1;
std::uint64_t first = 0, last = 0, calls[count], failed = 0;

bool fails(Kind kind)
{
    if (!armed || (++calls[kind], kind != failing_kind) || calls[kind] < first ||
        calls[kind] > last)
        return false;
    ++failed;
    errno = errors[kind];
    return true;
}

template <class Function>
Function* next(Function*, const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}
} // namespace

namespace Below
{
const char* const Names[] = {PLAIN(NAME) OTHERS(NAME)};
const int Kinds = count;

void Arm(int kind, std::uint64_t n, bool lasting)
{
    failing_kind = kind;
    first = n;
    last = lasting ? UINT64_MAX : n;
    failed = 0;
    for (std::uint64_t& number : calls)
        number = 0;
    armed = true;
}
void Disarm()
{
    armed = false;
}
std::uint64_t Calls(int kind)
{
    return calls[kind];
}
std::uint64_t Failed()
{
    return failed;
}
} // namespace Below

extern "C" {

#define DEFINE(result, failure, error, name, parameters, arguments)                                \
    result name parameters                                                                         \
    {                                                                                              \
        static auto* const real = next(&name, #name);                                              \
        return fails(kind_##name) ? failure : real arguments;                                      \
    }
ssize_t getdents64(int d, void* b, Size s) noexcept;
PLAIN(DEFINE)

// A caller that gives no further argument has something else there, which nobody looks at.
int open(Path path, int flags, ...)
{
    static auto* const real = next(&open, "open");
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = va_arg(rest, mode_t);
    va_end(rest);
    return fails(kind_open) ? -1 : real(path, flags, mode);
}
int fcntl(int file, int command, ...)
{
    static auto* const real = next(&fcntl, "fcntl");
    va_list rest;
    va_start(rest, command);
    void* const argument = va_arg(rest, void*);
    va_end(rest);
    return fails(kind_fcntl) ? -1 : real(file, command, argument);
}
void* mremap(void* old, Size old_size, Size size, int flags, ...) noexcept
{
    static auto* const real = next(&mremap, "mremap");
    va_list rest;
    va_start(rest, flags);
    void* const place = va_arg(rest, void*);
    va_end(rest);
    return fails(kind_mremap) ? MAP_FAILED : real(old, old_size, size, flags, place);
}
int close(int file)
{
    static auto* const real = next(&close, "close");
    const int result = real(file);
    return fails(kind_close) ? -1 : result;
}

// The allocator's own, since to look for them by name may allocate.
// clang-format off
void* __libc_malloc(Size);
void* __libc_calloc(Size, Size);
void* __libc_realloc(void*, Size);
void* __libc_memalign(Size, Size);
void* malloc(Size s) noexcept { return fails(kind_malloc) ? nullptr : __libc_malloc(s); }
void* calloc(Size n, Size s) noexcept { return fails(kind_malloc) ? nullptr : __libc_calloc(n, s); }
void* realloc(void* p, Size s) noexcept { return s != 0 && fails(kind_malloc) ? nullptr : __libc_realloc(p, s); }
void* aligned_alloc(Size a, Size s) noexcept { return fails(kind_malloc) ? nullptr : __libc_memalign(a, s); }
// clang-format on
}
