#ifndef MEM_HUGEBYTES_H
#define MEM_HUGEBYTES_H

#include "Mem/Mem_Views.h"

#include <atomic>
#include <chrono>

/// Bytes of a pager's views that huge pages map, as the system told last. It walks through all
/// pages of the views for that, so its answer stands for twenty times as long as it took: who asks
/// all the time spends a twentieth of it.
///
/// Threads: any.
class Mem_HugeBytes
{
public:
    /// @param addresses called if the system has to be asked, for the Mem_ViewAddresses.
    template <class Addresses>
    unsigned long long Get(Addresses addresses)
    {
        using Clock = std::chrono::steady_clock;
        const Clock::time_point begin = Clock::now();
        if (begin < m_stands_until.load(std::memory_order_acquire))
            return m_bytes.load(std::memory_order_relaxed);
        const unsigned long long bytes = addresses().HugeBytes();
        const Clock::time_point end = Clock::now();
        m_bytes.store(bytes, std::memory_order_relaxed);
        m_stands_until.store(end + 20 * (end - begin), std::memory_order_release);
        return bytes;
    }

private:
    std::atomic<unsigned long long> m_bytes = 0;
    std::atomic<std::chrono::steady_clock::time_point> m_stands_until{};
};

#endif
