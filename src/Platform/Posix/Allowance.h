#ifndef PLATFORM_POSIX_ALLOWANCE_H
#define PLATFORM_POSIX_ALLOWANCE_H

#include <atomic>
#include <cstdint>

/// What this process may take of shared memory without looking again at what is left. A look at all
/// the limits costs half as much as the rest of a small region's making. So one that finds plenty
/// stands for a MiB, less than one step of a large region takes, and for a moment. Near a limit
/// there is no allowance, and each region is preceded by a look of its own. Threads: any.
class Allowance
{
public:
    /// The bytes that one look stands for.
    static constexpr std::uint64_t Size = std::uint64_t{1} << 20;

    /// As much has to be granted at once for that: then even many processes that look in the same
    /// moment don't reach the limit together.
    static constexpr std::uint64_t Plenty = 4 * Size;

    /// How long it stands, in milliseconds: meanwhile others take from what was seen, too.
    static constexpr std::uint64_t Moment = 10;

    /// Takes `size` bytes from it. @return false, and nothing is taken, if there is less, if its
    /// moment is over, in a child of the process that looked, or if another thread is at it.
    bool Take(std::uint64_t size);

    /// After a look that granted `granted` bytes, of which `taken` are taken at once.
    void Renew(std::uint64_t granted, std::uint64_t taken);

private:
    std::atomic_flag m_in_use;
    std::uint64_t m_left = 0;
    std::uint64_t m_end = 0;
    int m_process = 0;
};

#endif
