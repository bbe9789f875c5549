#ifndef FIBREX_WINDOWUNIXMUTEX_H
#define FIBREX_WINDOWUNIXMUTEX_H

#include "mempager_export.h"

#include <atomic>
#include <bit>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <thread>
#include <type_traits>

/// Marks for clang's -Wthread-safety; empty elsewhere.
#if defined(__clang__)
#define FIBREX_ATTRIBUTE(x) __attribute__((x))
#else
#define FIBREX_ATTRIBUTE(x)
#endif
#define FIBREX_CAPABILITY(name) FIBREX_ATTRIBUTE(capability(name))
#define FIBREX_SCOPED_CAPABILITY FIBREX_ATTRIBUTE(scoped_lockable)
#define FIBREX_GUARDED_BY(mutex) FIBREX_ATTRIBUTE(guarded_by(mutex))
#define FIBREX_PT_GUARDED_BY(mutex) FIBREX_ATTRIBUTE(pt_guarded_by(mutex))
#define FIBREX_REQUIRES(...) FIBREX_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define FIBREX_ACQUIRE(...) FIBREX_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define FIBREX_TRY_ACQUIRE(...) FIBREX_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define FIBREX_RELEASE(...) FIBREX_ATTRIBUTE(release_capability(__VA_ARGS__))
#define FIBREX_NO_THREAD_SAFETY_ANALYSIS FIBREX_ATTRIBUTE(no_thread_safety_analysis)

#if defined(_WIN32)
/// What WindowUnixMutex sleeps on where std::mutex can't be constant-initialised: one word, and
/// nothing to construct or to destroy. Threads: any. Never throws, allocates nothing.
class MEMPAGER_EXPORT FibrexSystemLock
{
public:
    /// Takes the lock, waiting for it.
    void lock() noexcept;
    /// Takes the lock if it is free. @return whether it was.
    bool try_lock() noexcept;
    /// Gives the lock back; for the thread that has it.
    void unlock() noexcept;

private:
    void* m_word = nullptr; // the system's, an SRWLOCK
};
#else
/// What WindowUnixMutex sleeps on.
using FibrexSystemLock = std::mutex;
#endif

/// A mutex that the thread which holds it may take again; it is free after as many releases.
///
/// Made of an owner word beside the system's lock: taking it again costs one comparison, and a
/// mutex that is held across a fork can be released in the child by the thread that forked.
/// Constant-initialised, so one in static storage works before any constructor has run.
/// Threads: any. Never throws; a release by a thread that doesn't hold it is ignored.
class FIBREX_CAPABILITY("mutex") alignas(64) WindowUnixMutex
{
public:
    constexpr WindowUnixMutex() noexcept = default;
    ~WindowUnixMutex() = default;

    WindowUnixMutex(const WindowUnixMutex&) = delete;
    WindowUnixMutex& operator=(const WindowUnixMutex&) = delete;

    /// Takes the mutex, waiting for it if another thread holds it.
    void CatchMutex() FIBREX_ACQUIRE() FIBREX_NO_THREAD_SAFETY_ANALYSIS
    {
        if (!HeldByThisThread()) {
            lock();
            m_owner.store(this_thread(), std::memory_order_relaxed);
        }
        ++m_depth;
    }

    /// Takes the mutex if that needs no waiting. @return whether this thread holds it now.
    bool TryCatchMutex() FIBREX_TRY_ACQUIRE(true) FIBREX_NO_THREAD_SAFETY_ANALYSIS
    {
        if (!HeldByThisThread()) {
            if (!m_mutex.try_lock())
                return false;
            m_owner.store(this_thread(), std::memory_order_relaxed);
        }
        ++m_depth;
        return true;
    }

    /// Takes the mutex, waiting `most` at the longest. @return whether this thread holds it now.
    bool CatchMutexFor(std::chrono::milliseconds most)
        FIBREX_TRY_ACQUIRE(true) FIBREX_NO_THREAD_SAFETY_ANALYSIS
    {
        const auto deadline = std::chrono::steady_clock::now() + most;
        while (!TryCatchMutex()) {
            if (std::chrono::steady_clock::now() >= deadline)
                return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return true;
    }

    /// Gives one taking back.
    void ReleaseMutex() FIBREX_RELEASE() FIBREX_NO_THREAD_SAFETY_ANALYSIS
    {
        if (!HeldByThisThread() || --m_depth != 0)
            return;
        m_owner.store(0, std::memory_order_relaxed);
        m_mutex.unlock();
    }

    /// Whether the calling thread holds the mutex.
    bool HeldByThisThread() const noexcept
    {
        // Only this thread can have stored its own id, so no ordering is needed.
        return m_owner.load(std::memory_order_relaxed) == this_thread();
    }

private:
    // The bits of a thread's id: unlike the id itself they can be constant-initialised. No thread
    // has the id of all zeros.
#if defined(_WIN32)
    using Owner = std::uint64_t;
#else
    using Owner = std::conditional_t<sizeof(std::thread::id) == 8, std::uint64_t, std::uint32_t>;
#endif
    /// What the library guards is mostly done sooner than a thread goes to sleep and is woken, so
    /// a waiting thread looks again for a tenth of a millisecond or so. It looks seldom: each
    /// change of hands moves the mutex, and all that it guards, from one processor's cache to the
    /// other's, and costs more than many short turns of the thread that has them.
    void lock() FIBREX_NO_THREAD_SAFETY_ANALYSIS
    {
        for (int look = 0; look < 24; ++look) {
            if (m_owner.load(std::memory_order_relaxed) == 0 && m_mutex.try_lock())
                return;
            for (int turn = 0; turn < 200; ++turn)
                pause();
        }
        m_mutex.lock();
    }

    static void pause() noexcept
    {
#if defined(__x86_64__) && defined(__GNUC__)
        __builtin_ia32_pause();
#endif
    }

    static Owner this_thread() noexcept
    {
#if defined(_WIN32) && defined(__GNUC__)
        Owner thread; // where the system keeps what it knows of the thread
        __asm__("movq %%gs:0x30, %0" : "=r"(thread));
        return thread;
#elif defined(__x86_64__) && defined(__GNUC__)
        return reinterpret_cast<Owner>(__builtin_thread_pointer()); // the same, without a call
#else
        return std::bit_cast<Owner>(std::this_thread::get_id());
#endif
    }

    FibrexSystemLock m_mutex;
    std::atomic<Owner> m_owner{0};
    int m_depth = 0; // touched by the owner only
};

/// Holds a WindowUnixMutex for a scope. The mutex must outlive the guard.
class FIBREX_SCOPED_CAPABILITY WindowUnixGuard
{
public:
    /// Takes the mutex, waiting for it.
    explicit WindowUnixGuard(WindowUnixMutex* mutex) FIBREX_ACQUIRE(mutex) : m_mutex(mutex)
    {
        m_mutex->CatchMutex();
    }

    /// Takes over a mutex that the thread has taken already.
    WindowUnixGuard(WindowUnixMutex* mutex, std::adopt_lock_t) FIBREX_REQUIRES(mutex)
        : m_mutex(mutex)
    {
    }
    ~WindowUnixGuard() FIBREX_RELEASE() { m_mutex->ReleaseMutex(); }

    WindowUnixGuard(const WindowUnixGuard&) = delete;
    WindowUnixGuard& operator=(const WindowUnixGuard&) = delete;

private:
    WindowUnixMutex* m_mutex;
};

#endif
