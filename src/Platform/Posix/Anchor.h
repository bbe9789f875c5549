#ifndef PLATFORM_POSIX_ANCHOR_H
#define PLATFORM_POSIX_ANCHOR_H

#include "Platform/Posix/Paths.h"

#include <atomic>
#include <cstdint>

/// Holds an open file, with the locks on it, for as long as the anchor or any view made from it
/// lives, in this process or in one forked from it.
class Anchor
{
public:
    /// A file is held by one mapped page, since a process can have far more maps than descriptors.
    /// A view made from that page has to begin at the file's first byte; what wasn't asked for is
    /// unmapped afterwards. Files of which only small parts are mapped (temp files) keep a
    /// descriptor as well, and so does every file if PagesWillDo() is false.
    enum class By { Page, Descriptor };

    /// What views allow. One for reading can never be made writable.
    enum class Rights { Read, ReadAndWrite };

    /// Whether a view can be made from a page alone. Not so under some tools that run a program,
    /// which refuse that call. Found out by trying, once for a process; without memory to try with
    /// it counts as not so until it was tried.
    static bool PagesWillDo();

    Anchor() = default;
    ~Anchor();
    Anchor(const Anchor&) = delete;
    Anchor& operator=(const Anchor&) = delete;

    /// Takes hold of a file that is open for as much as `rights` say. The descriptor may be
    /// closed then. @return false with errno; without a hold.
    bool Hold(int descriptor, Rights rights, By by);

    /// Maps [offset, offset + size) of the file anew, whether it still has a name or not.
    /// `offset` is a multiple of the page size. If the host has closed the descriptor, whatever its
    /// number stands for now isn't touched, and the page has to do. @return null with errno, EBADF
    /// if it won't.
    void* View(std::uint64_t offset, std::uint64_t size) const;

    /// Where the page is by which the file is held; its place tells the file apart from others.
    const void* Page() const { return m_page; }

    /// Lets go, if there is a hold. Views stay. @return false with errno; a page stays then.
    bool Drop();

    /// Lets go of the descriptor alone, if there is one and it still is this file's.
    bool DropDescriptor();

private:
    bool hold_page(int descriptor);
    bool hold_descriptor(int descriptor);
    bool has_descriptor() const;
    void* view_from_page(std::uint64_t offset, std::uint64_t size) const;
    void* view_of_front(std::uint64_t size) const;

    int m_protection = 0;
    FileIdentity m_identity;
    void* m_page = nullptr;
    mutable std::atomic<void*> m_last = nullptr; ///< where a view was that huge pages could map
    int m_descriptor = -1;
};

#endif
