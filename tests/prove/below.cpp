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

// clang-format off
/// Each kind with what a failure of it tells.
#define KINDS(KIND)                                                                                \
    KIND(open, EMFILE) KIND(close, EIO) KIND(mmap, ENOMEM) KIND(mremap, ENOMEM)                    \
    KIND(munmap, ENOMEM) KIND(madvise, EAGAIN) KIND(fallocate, ENOSPC) KIND(ftruncate, EIO)        \
    KIND(fstat, EIO) KIND(stat, EACCES) KIND(lstat, EACCES) KIND(statx, EACCES)                    \
    KIND(statvfs, EIO) KIND(fstatvfs, EIO) KIND(fcntl, ENOLCK) KIND(linkat, ENOSPC)                \
    KIND(link, ENOSPC) KIND(symlink, ENOSPC) KIND(unlink, EACCES) KIND(rename, EACCES)             \
    KIND(renameat2, EACCES) KIND(access, EACCES) KIND(faccessat, EACCES) KIND(readlink, EACCES)    \
    KIND(read, EIO) KIND(write, EIO) KIND(getdents64, EIO) KIND(lseek, EIO) KIND(fchmod, EPERM)    \
    KIND(getrandom, EAGAIN) KIND(kill, EPERM) KIND(malloc, ENOMEM)
// clang-format on

namespace
{
#define ENUMERATOR(name, error) kind_##name,
enum Kind { KINDS(ENUMERATOR) count };
#define ERROR(name, error) error,
constexpr int errors[] = {KINDS(ERROR)};

bool armed = false;
int failing_kind = -1;
std::uint64_t failing_first = 0, failing_last = 0;
std::uint64_t calls[count], failed = 0;

bool fails(Kind kind)
{
    if (!armed)
        return false;
    const std::uint64_t now = ++calls[kind];
    if (kind != failing_kind || now < failing_first || now > failing_last)
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
#define NAME(name, error) #name,
const char* const Names[] = {KINDS(NAME)};
const int Kinds = count;

void Arm(int kind, std::uint64_t n, bool lasting)
{
    failing_kind = kind;
    failing_first = n;
    failing_last = lasting ? UINT64_MAX : n;
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

#define PASS(result, failure, name, parameters, arguments)                                         \
    result name parameters                                                                         \
    {                                                                                              \
        static auto* const real = next(&name, #name);                                              \
        return fails(kind_##name) ? failure : real arguments;                                      \
    }

extern "C" {

int open(const char* path, int flags, ...)
{
    static auto* const real = next(&open, "open");
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(rest, mode_t) : 0;
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
void* mremap(void* old, std::size_t old_size, std::size_t size, int flags, ...) noexcept
{
    static auto* const real = next(&mremap, "mremap");
    va_list rest;
    va_start(rest, flags);
    void* const place = (flags & MREMAP_FIXED) != 0 ? va_arg(rest, void*) : nullptr;
    va_end(rest);
    return fails(kind_mremap) ? MAP_FAILED : real(old, old_size, size, flags, place);
}
int close(int file)
{
    static auto* const real = next(&close, "close");
    const int result = real(file);
    return fails(kind_close) ? -1 : result;
}

using Stat = struct stat;
using Statx = struct statx;
using Statvfs = struct statvfs;
// clang-format off
PASS(void*, MAP_FAILED, mmap, (void* a, std::size_t s, int p, int f, int d, off_t o) noexcept, (a, s, p, f, d, o))
PASS(int, -1, munmap, (void* a, std::size_t s) noexcept, (a, s))
PASS(int, -1, madvise, (void* a, std::size_t s, int v) noexcept, (a, s, v))
PASS(int, -1, fallocate, (int d, int m, off_t o, off_t s), (d, m, o, s))
PASS(int, -1, ftruncate, (int d, off_t s) noexcept, (d, s))
PASS(int, -1, fstat, (int d, Stat* s) noexcept, (d, s))
PASS(int, -1, stat, (const char* p, Stat* s) noexcept, (p, s))
PASS(int, -1, lstat, (const char* p, Stat* s) noexcept, (p, s))
PASS(int, -1, statx, (int d, const char* p, int f, unsigned m, Statx* s) noexcept, (d, p, f, m, s))
PASS(int, -1, statvfs, (const char* p, Statvfs* s) noexcept, (p, s))
PASS(int, -1, fstatvfs, (int d, Statvfs* s) noexcept, (d, s))
PASS(int, -1, linkat, (int d, const char* p, int e, const char* q, int f) noexcept, (d, p, e, q, f))
PASS(int, -1, link, (const char* p, const char* q) noexcept, (p, q))
PASS(int, -1, symlink, (const char* p, const char* q) noexcept, (p, q))
PASS(int, -1, unlink, (const char* p) noexcept, (p))
PASS(int, -1, rename, (const char* p, const char* q) noexcept, (p, q))
PASS(int, -1, renameat2, (int d, const char* p, int e, const char* q, unsigned f) noexcept, (d, p, e, q, f))
PASS(int, -1, access, (const char* p, int m) noexcept, (p, m))
PASS(int, -1, faccessat, (int d, const char* p, int m, int f) noexcept, (d, p, m, f))
PASS(ssize_t, -1, readlink, (const char* p, char* b, std::size_t s) noexcept, (p, b, s))
PASS(ssize_t, -1, read, (int d, void* b, std::size_t s), (d, b, s))
PASS(ssize_t, -1, write, (int d, const void* b, std::size_t s), (d, b, s))
PASS(off_t, -1, lseek, (int d, off_t o, int w) noexcept, (d, o, w))
PASS(int, -1, fchmod, (int d, mode_t m) noexcept, (d, m))
PASS(ssize_t, -1, getrandom, (void* b, std::size_t s, unsigned f), (b, s, f))
PASS(int, -1, kill, (pid_t p, int s) noexcept, (p, s))

ssize_t getdents64(int d, void* b, std::size_t s) noexcept;
PASS(ssize_t, -1, getdents64, (int d, void* b, std::size_t s) noexcept, (d, b, s))

// The allocator's own, since to look for them by name may allocate.
void* __libc_malloc(std::size_t);
void* __libc_calloc(std::size_t, std::size_t);
void* __libc_realloc(void*, std::size_t);
void* __libc_memalign(std::size_t, std::size_t);
void* malloc(std::size_t s) noexcept { return fails(kind_malloc) ? nullptr : __libc_malloc(s); }
void* calloc(std::size_t n, std::size_t s) noexcept { return fails(kind_malloc) ? nullptr : __libc_calloc(n, s); }
void* realloc(void* p, std::size_t s) noexcept { return s != 0 && fails(kind_malloc) ? nullptr : __libc_realloc(p, s); }
void* aligned_alloc(std::size_t a, std::size_t s) noexcept { return fails(kind_malloc) ? nullptr : __libc_memalign(a, s); }
int posix_memalign(void** p, std::size_t a, std::size_t s) noexcept
{
    return fails(kind_malloc) || (*p = __libc_memalign(a, s)) == nullptr ? ENOMEM : 0;
}
// clang-format on
}
