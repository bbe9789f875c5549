#include "support/FailingNew.h"

#include <cstddef>
#include <cstdlib>
#include <new>

namespace
{
constinit thread_local FailingNew* t_guard = nullptr;
constinit thread_local std::uint64_t t_attempts = 0;

void* try_once(std::size_t size, std::size_t alignment)
{
    if (FailingNew::FailsNow())
        return nullptr;
    size = size == 0 ? 1 : size;
    if (alignment <= alignof(std::max_align_t))
        return std::malloc(size);
    const std::size_t rounded = (size + alignment - 1) / alignment * alignment;
    return rounded < size ? nullptr : std::aligned_alloc(alignment, rounded);
}

void* allocate(std::size_t size, std::size_t alignment = 1)
{
    for (;;) {
        if (void* const memory = try_once(size, alignment))
            return memory;
        const std::new_handler handler = std::get_new_handler();
        if (handler == nullptr)
            throw std::bad_alloc();
        handler();
    }
}

void* allocate_or_null(std::size_t size, std::size_t alignment = 1) noexcept
{
    try {
        return allocate(size, alignment);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

std::size_t number(std::align_val_t alignment)
{
    return static_cast<std::size_t>(alignment);
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

// All forms, since a sanitizer's own would not match the rest.
using Size = std::size_t;
using Align = std::align_val_t;
using Nothrow = std::nothrow_t;
// clang-format off
void* operator new(Size size) { return allocate(size); }
void* operator new[](Size size) { return allocate(size); }
void* operator new(Size size, Align to) { return allocate(size, number(to)); }
void* operator new[](Size size, Align to) { return allocate(size, number(to)); }
void* operator new(Size size, const Nothrow&) noexcept { return allocate_or_null(size); }
void* operator new[](Size size, const Nothrow&) noexcept { return allocate_or_null(size); }
void* operator new(Size size, Align to, const Nothrow&) noexcept { return allocate_or_null(size, number(to)); }
void* operator new[](Size size, Align to, const Nothrow&) noexcept { return allocate_or_null(size, number(to)); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, Size) noexcept { std::free(memory); }
void operator delete[](void* memory, Size) noexcept { std::free(memory); }
void operator delete(void* memory, Align) noexcept { std::free(memory); }
void operator delete[](void* memory, Align) noexcept { std::free(memory); }
void operator delete(void* memory, Size, Align) noexcept { std::free(memory); }
void operator delete[](void* memory, Size, Align) noexcept { std::free(memory); }
void operator delete(void* memory, const Nothrow&) noexcept { std::free(memory); }
void operator delete[](void* memory, const Nothrow&) noexcept { std::free(memory); }
void operator delete(void* memory, Align, const Nothrow&) noexcept { std::free(memory); }
void operator delete[](void* memory, Align, const Nothrow&) noexcept { std::free(memory); }
// clang-format on
