#ifndef PLATFORM_POSIX_HUGEPAGES_H
#define PLATFORM_POSIX_HUGEPAGES_H

#include <cstdint>

#include <sys/types.h>

/// Bytes of a huge page, which the processor finds by one entry instead of 512. Where the system
/// has others, none is asked for.
inline constexpr std::uint64_t HugePage = std::uint64_t{1} << 21;

/// What the system does about huge pages in a file system in memory, as it was mounted (huge=...).
enum class HugePolicy {
    Never,
    Always,     ///< wherever one fits, also beyond a file's end
    WithinSize, ///< where a file is as long
    Advise      ///< where a view was made with advice, and is touched
};

/// The policy for an open file. What was found is remembered for a file system until another is
/// asked for: one that is mounted anew with other options keeps its policy for this process.
HugePolicy HugePolicyOf(int file);

/// Whether any file of this process was offered huge pages.
bool HugePagesAreInUse();

/// A new file of a size, which is reserved from its front to its end. Keeps nothing of the file's;
/// what stands in the way leaves small pages in the huge ones' place and is no failure.
class HugeFile
{
public:
    HugeFile(int file, std::uint64_t size);
    ~HugeFile();
    HugeFile(const HugeFile&) = delete;
    HugeFile& operator=(const HugeFile&) = delete;

    /// Whether one is taken for whatever is reserved first of its bytes.
    bool TakesThemAnyway() const { return m_policy == HugePolicy::Always; }

    /// Prepares the next HugePage bytes, from `offset` on, for being reserved as one.
    void Offer(std::uint64_t offset) const;

private:
    const int m_file;
    const std::uint64_t m_size;
    const HugePolicy m_policy;
    void* m_view = nullptr; ///< with advice
};

#endif
