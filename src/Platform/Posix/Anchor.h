#ifndef PLATFORM_POSIX_ANCHOR_H
#define PLATFORM_POSIX_ANCHOR_H

#include <cstdint>

/// Holds an open file by a view of its first page, so that no descriptor is needed: descriptors
/// are few, maps are many. The open file, with the locks on it, lives as long as the anchor or
/// any view made from it, in this process or in one forked from it.
class Anchor
{
public:
    Anchor() = default;
    ~Anchor();
    Anchor(const Anchor&) = delete;
    Anchor& operator=(const Anchor&) = delete;

    /// Takes hold of a file of at least one byte that is open for reading and writing. The
    /// descriptor may be closed then. @return false with errno; without a hold.
    bool Hold(int descriptor);

    /// The same for a file that is open for reading; no view can ever be written to.
    bool HoldForReading(int descriptor);

    /// Maps [offset, offset + size) of the file anew, whether it still has a name or not.
    /// `offset` is a multiple of the page size. @return null with errno.
    void* View(std::uint64_t offset, std::uint64_t size) const;

    /// Lets go, if there is a hold. Views stay. @return false with errno; the hold stays then.
    bool Drop();

private:
    bool hold(int descriptor, int protection);

    void* m_page = nullptr;
};

#endif
