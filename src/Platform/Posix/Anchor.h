#ifndef PLATFORM_POSIX_ANCHOR_H
#define PLATFORM_POSIX_ANCHOR_H

#include <cstdint>

/// Holds an open file, with the locks on it, for as long as the anchor or any view made from it
/// lives, in this process or in one forked from it.
class Anchor
{
public:
    /// Descriptors are few, maps are many: a page of the file will do. Such a view begins at the
    /// file's first byte and then loses what wasn't asked for, so small stretches of big files,
    /// which are few, take a descriptor as well.
    enum class By { Page, Descriptor };

    /// What views allow. One for reading can never be made writable.
    enum class Rights { Read, ReadAndWrite };

    Anchor() = default;
    ~Anchor();
    Anchor(const Anchor&) = delete;
    Anchor& operator=(const Anchor&) = delete;

    /// Takes hold of a file that is open for as much as `rights` say. The descriptor may be
    /// closed then. @return false with errno; without a hold.
    bool Hold(int descriptor, Rights rights, By by);

    /// Maps [offset, offset + size) of the file anew, whether it still has a name or not.
    /// `offset` is a multiple of the page size. @return null with errno.
    void* View(std::uint64_t offset, std::uint64_t size) const;

    /// Where the page is by which the file is held; its place tells the file apart from others.
    const void* Page() const { return m_page; }

    /// Lets go, if there is a hold. Views stay. @return false with errno; a page stays then.
    bool Drop();

private:
    bool hold_page(int descriptor);
    bool hold_descriptor(int descriptor);
    void* view_from_page(std::uint64_t offset, std::uint64_t size) const;

    int m_protection = 0;
    void* m_page = nullptr;
    int m_descriptor = -1;
};

#endif
