#include "support/FailingNew.h"

#include <cstddef>
#include <cstdlib>
#include <new>

namespace
{
constinit thread_local FailingNew* t_guard = nullptr;
constinit thread_local std::uint64_t t_attempts = 0;

using Size = std::size_t;
using Align = std::align_val_t;
using Nothrow = std::nothrow_t;

#if defined(_WIN32) // whose free takes nothing that is aligned
void* aligned(Size size, Align to)
{
    return _aligned_malloc(size, static_cast<Size>(to));
}
void free_aligned(void* memory)
{
    _aligned_free(memory);
}
#else
void* aligned(Size size, Align to)
{
    const Size unit = static_cast<Size>(to);
    return std::aligned_alloc(unit, (size + unit - 1) / unit * unit);
}
void free_aligned(void* memory)
{
    std::free(memory);
}
#endif

void* allocate(Size size, Align to = Align{1})
{
    for (;;) {
        void* memory = nullptr;
        if (!FailingNew::FailsNow())
            memory = to == Align{1} ? std::malloc(size) : aligned(size, to);
        if (memory != nullptr)
            return memory;
        const std::new_handler handler = std::get_new_handler();
        if (handler == nullptr)
            throw std::bad_alloc();
        handler();
    }
}

void* allocate_or_null(Size size) noexcept
try {
    return allocate(size);
} catch (const std::bad_alloc&) {
    return nullptr;
}
} // namespace

FailingNew::FailingNew(std::uint64_t n, std::uint64_t count)
    : m_first(n), m_count(count), m_outer(t_guard)
{
    t_guard = this;
}

FailingNew::~FailingNew()
{
    t_guard = m_outer;
}

bool FailingNew::FailsNow()
{
    ++t_attempts;
    if (t_guard == nullptr || ++t_guard->m_attempts < t_guard->m_first ||
        t_guard->m_attempts - t_guard->m_first >= t_guard->m_count)
        return false;
    t_guard->m_fired = true;
    return true;
}

std::uint64_t AllocationsOfThisThread()
{
    return t_attempts;
}

// All forms in use, since a sanitizer's own would not match the rest.
// clang-format off
void* operator new(Size size) { return allocate(size); }
void* operator new[](Size size) { return allocate(size); }
void* operator new(Size size, Align to) { return allocate(size, to); }
void* operator new[](Size size, Align to) { return allocate(size, to); }
void* operator new(Size size, const Nothrow&) noexcept { return allocate_or_null(size); }
void* operator new[](Size size, const Nothrow&) noexcept { return allocate_or_null(size); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, Size) noexcept { std::free(memory); }
void operator delete[](void* memory, Size) noexcept { std::free(memory); }
void operator delete(void* memory, Align) noexcept { free_aligned(memory); }
void operator delete[](void* memory, Align) noexcept { free_aligned(memory); }
void operator delete(void* memory, Size, Align) noexcept { free_aligned(memory); }
void operator delete[](void* memory, Size, Align) noexcept { free_aligned(memory); }
// clang-format on
