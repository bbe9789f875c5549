#ifndef PLATFORM_POSIX_HUGEPAGES_H
#define PLATFORM_POSIX_HUGEPAGES_H

#include <cstdint>

#include <sys/types.h>

/// Bytes of a huge page, which the processor finds by one entry instead of 512. Where the system
/// has others, none is asked for.
inline constexpr std::uint64_t HugePage = std::uint64_t{1} << 21;

/// MADV_COLLAPSE, which the C library's headers may not have: asks for the pages of a view to be
/// made huge ones.
inline constexpr int CollapseAdvice = 25;

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

/// Whether any file of this process may be of huge pages.
bool HugePagesAreInUse();

/// Reserves addresses for a view of `size` bytes of a file's beginning, so that huge pages can map
/// it; `wish`, where the view was last, if that is free. A view that is made there takes their
/// place; whoever can't make it ends them.
/// @return null if there are none, or if it would be of no use.
void* PlaceForView(std::uint64_t size, void* wish = nullptr);

/// A new file of a size, which is reserved from its front to its end. Keeps nothing of the file's;
/// what stands in the way leaves small pages in the huge ones' place and is no failure.
///
/// A program may ask for huge pages also where the mount doesn't offer them (Linux from 6.1 on), as
/// long as they aren't denied to all, or to this process.
class HugeFile
{
public:
    HugeFile(int file, std::uint64_t size);
    ~HugeFile();
    HugeFile(const HugeFile&) = delete;
    HugeFile& operator=(const HugeFile&) = delete;

    /// Whether one is taken for whatever is reserved first of its bytes.
    bool TakesThemAnyway() const { return m_policy == HugePolicy::Always; }

    /// Prepares `size` bytes from `offset` on, which are next to be reserved, for being so in huge
    /// pages as far as whole ones fit. These may be taken by it.
    void Offer(std::uint64_t offset, std::uint64_t size) const;

private:
    void make_view();

    const int m_file;
    const std::uint64_t m_size;
    const HugePolicy m_policy;
    char* m_view = nullptr; ///< by which they are asked for
};

#endif
