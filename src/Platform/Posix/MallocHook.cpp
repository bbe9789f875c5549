#include "Platform/Posix/AllocationFailure.h"

// Definitions of malloc and its kin that stand in front of the C library's where this library is
// linked into a program. They pass every call on and come into play when one fails: then the
// cache is given up, and the call made once more. free needs no such definition.

#include <dlfcn.h>

#if defined(MEMPAGER_HOOK_MALLOC)

#include "mempager_export.h"

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <malloc.h>
#include <type_traits>

namespace
{

[[gnu::tls_model("initial-exec")]] constinit thread_local bool looking_up = false;

void* out_of_memory() noexcept
{
    errno = ENOMEM;
    return nullptr;
}

/// The next definition of a function behind this library's. It is found at the first call, which
/// can come before any constructor has run; until then a stand-in that finds it is called, so
/// that the usual call needs no test.
template <const char* Name, class Result, class... Arguments>
class Next
{
public:
    static Result Call(Arguments... arguments) noexcept
    {
        return s_function.load(std::memory_order_relaxed)(arguments...);
    }

private:
    using Function = Result (*)(Arguments...);

    /// A call that the look-up itself makes runs as out of memory.
    static Result find_and_call(Arguments... arguments) noexcept
    {
        Function found = nullptr;
        if (!looking_up) {
            looking_up = true;
            found = reinterpret_cast<Function>(dlsym(RTLD_NEXT, Name));
            looking_up = false;
        }
        if (found != nullptr) {
            s_function.store(found, std::memory_order_relaxed);
            return found(arguments...);
        }
        if constexpr (std::is_pointer_v<Result>)
            return out_of_memory();
        else
            return ENOMEM;
    }

    static constinit inline std::atomic<Function> s_function{find_and_call};
};

constexpr char name_malloc[] = "malloc";
constexpr char name_calloc[] = "calloc";
constexpr char name_realloc[] = "realloc";
constexpr char name_reallocarray[] = "reallocarray";
constexpr char name_aligned_alloc[] = "aligned_alloc";
constexpr char name_posix_memalign[] = "posix_memalign";
constexpr char name_memalign[] = "memalign";
constexpr char name_valloc[] = "valloc";

using NextMalloc = Next<name_malloc, void*, std::size_t>;
using NextCalloc = Next<name_calloc, void*, std::size_t, std::size_t>;
using NextRealloc = Next<name_realloc, void*, void*, std::size_t>;
using NextReallocarray = Next<name_reallocarray, void*, void*, std::size_t, std::size_t>;
using NextAlignedAlloc = Next<name_aligned_alloc, void*, std::size_t, std::size_t>;
using NextPosixMemalign = Next<name_posix_memalign, int, void**, std::size_t, std::size_t>;
using NextMemalign = Next<name_memalign, void*, std::size_t, std::size_t>;
using NextValloc = Next<name_valloc, void*, std::size_t>;

/// A request that no memory can ever fulfil isn't worth the cache.
bool can_ever_be(std::size_t count, std::size_t size)
{
    std::size_t bytes = 0;
    return !__builtin_mul_overflow(count, size, &bytes) && bytes <= PTRDIFF_MAX;
}

/// Calls once more as long as the handler finds something to give up. `count` times `size` is what
/// is asked for.
template <class Function, class... Arguments>
[[gnu::noinline]] void* call_again(std::size_t count, std::size_t size,
                                   Arguments... arguments) noexcept
{
    void* result = nullptr;
    // An alignment that is refused isn't a want of memory.
    while (result == nullptr && errno == ENOMEM && can_ever_be(count, size) &&
           ReclaimForMalloc(count * size))
        result = Function::Call(arguments...);
    return result;
}

/// Passes a call on, and looks at nothing but the result.
template <class Function, class... Arguments>
inline void* forward(std::size_t count, std::size_t size, Arguments... arguments) noexcept
{
    void* const result = Function::Call(arguments...);
    if (result != nullptr) [[likely]]
        return result;
    return call_again<Function>(count, size, arguments...);
}

} // namespace

extern "C" {

MEMPAGER_EXPORT void* malloc(std::size_t size) noexcept
{
    return forward<NextMalloc>(1, size, size);
}

MEMPAGER_EXPORT void* calloc(std::size_t count, std::size_t size) noexcept
{
    return forward<NextCalloc>(count, size, count, size);
}

// A size of 0 frees, and null isn't a failure then: errno stays what it was.
MEMPAGER_EXPORT void* realloc(void* old, std::size_t size) noexcept
{
    return size == 0 ? NextRealloc::Call(old, size) : forward<NextRealloc>(1, size, old, size);
}

MEMPAGER_EXPORT void* reallocarray(void* old, std::size_t count, std::size_t size) noexcept
{
    return count == 0 || size == 0 ? NextReallocarray::Call(old, count, size)
                                   : forward<NextReallocarray>(count, size, old, count, size);
}

MEMPAGER_EXPORT void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept
{
    return forward<NextAlignedAlloc>(1, size, alignment, size);
}

MEMPAGER_EXPORT void* memalign(std::size_t alignment, std::size_t size) noexcept
{
    return forward<NextMemalign>(1, size, alignment, size);
}

MEMPAGER_EXPORT void* valloc(std::size_t size) noexcept
{
    return forward<NextValloc>(1, size, size);
}

// Tells the cause by its result and leaves errno alone.
MEMPAGER_EXPORT int posix_memalign(void** result, std::size_t alignment, std::size_t size) noexcept
{
    int failure = NextPosixMemalign::Call(result, alignment, size);
    while (failure == ENOMEM && can_ever_be(1, size) && ReclaimForMalloc(size))
        failure = NextPosixMemalign::Call(result, alignment, size);
    return failure;
}

} // extern "C"

// Judged by the object that holds the definition: inside this library the plain name `malloc` may
// mean another one.
bool MallocComesByHere() noexcept
{
    Dl_info used{};
    Dl_info own{};
    return dladdr(dlsym(RTLD_DEFAULT, "malloc"), &used) != 0 &&
           dladdr(reinterpret_cast<void*>(&MallocComesByHere), &own) != 0 &&
           used.dli_fbase == own.dli_fbase;
}

bool MallocHookIsBuilt() noexcept
{
    return true;
}

#else

bool MallocComesByHere() noexcept
{
    return false;
}

bool MallocHookIsBuilt() noexcept
{
    return false;
}

#endif
