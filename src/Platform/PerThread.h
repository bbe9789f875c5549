#ifndef PLATFORM_PERTHREAD_H
#define PLATFORM_PERTHREAD_H

/// Each thread's own variable, whose first use in a thread needs no memory, also in a library that
/// was loaded late: it is most wanted when there is none. Every thread begins with the value that
/// the definition gives, which is constant. Defined at the scope of a namespace:
///
///     PLATFORM_PER_THREAD PerThread<bool> inside{false};
///     ...
///     if (*inside)
template <class Value>
class PerThread;

#if defined(_WIN32)

#include <cstddef>

// The compiler's own thread_local asks malloc at each thread's first use. The loader's needs
// nobody: what lies between its first and last section, in the order of their letters, is copied
// for each thread when that, or the library, comes.
#define PLATFORM_PER_THREAD [[gnu::section(".tls$MEMPAGER"), gnu::used]] static constinit

extern "C" unsigned int _tls_index;
extern "C" char _tls_start;

template <class Value>
class PerThread
{
public:
    constexpr explicit PerThread(Value value) : m_value(value) {}

    Value& operator*() const noexcept
    {
        char** copies;
        asm("movq %%gs:0x58, %0" : "=r"(copies));
        const auto* const first = reinterpret_cast<const char*>(this);
        return reinterpret_cast<PerThread*>(copies[_tls_index] + (first - &_tls_start))->m_value;
    }
    Value* operator->() const noexcept { return &**this; }

private:
    Value m_value;
};

#else

#define PLATFORM_PER_THREAD [[gnu::tls_model("initial-exec")]] static constinit thread_local

template <class Value>
class PerThread
{
public:
    constexpr explicit PerThread(Value value) : m_value(value) {}

    Value& operator*() noexcept { return m_value; }
    Value* operator->() noexcept { return &m_value; }

private:
    Value m_value;
};

#endif

#endif
