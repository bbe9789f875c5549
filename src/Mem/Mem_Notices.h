#ifndef MEM_NOTICES_H
#define MEM_NOTICES_H

#include "Mem/Mem_Notice.h"

#include <atomic>
#include <chrono>

// What the host's hook is told. It is met under the pager's mutex, waits with the thread, and is
// told by that thread once it holds no lock. Nothing here allocates or throws.

namespace Mem_Notices
{

/// Puts a hook in place of the last one; null for none. Under the pager's mutex.
void SetHook(Mem_NoticeHook hook, void* context) noexcept;

/// A region of so many bytes lies in a file. Under the pager's mutex.
void Spilled(unsigned long long bytes) noexcept;

/// How many threads have something waiting. Read without a lock by those that look for their own.
extern constinit std::atomic<unsigned> Waiting;

} // namespace Mem_Notices

/// How fast a pager gives up views for others. Under the pager's mutex.
class Mem_EvictionRate
{
public:
    /// So many bytes were given up, where so many may be mapped.
    void Evicted(unsigned long long bytes, unsigned long long limit) noexcept;

private:
    std::chrono::steady_clock::time_point m_begin; ///< of the second that is looked at
    unsigned long long m_bytes = 0;                ///< since then
};

/// Tells what an operation has met, at its end. Declared before the operation takes its locks.
class Mem_NoticesAtEnd
{
public:
    Mem_NoticesAtEnd() = default;
    ~Mem_NoticesAtEnd()
    {
        if (Mem_Notices::Waiting.load(std::memory_order_relaxed) != 0) [[unlikely]]
            tell();
    }
    Mem_NoticesAtEnd(const Mem_NoticesAtEnd&) = delete;
    Mem_NoticesAtEnd& operator=(const Mem_NoticesAtEnd&) = delete;

private:
    static void tell() noexcept;
};

#endif
