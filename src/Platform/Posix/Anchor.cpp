#include "Platform/Posix/Anchor.h"

#include "Platform/Posix/Limits.h"
#include "Platform/Posix/Scoped.h"

#include <utility>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace
{

std::size_t page_size()
{
    return static_cast<std::size_t>(getpagesize());
}

/// @return a new view; null, with the limit that was met, if it couldn't be had.
void* given(void* view, std::uint64_t size)
{
    if (view != MAP_FAILED)
        return view;
    MeetNoMap(size);
    return nullptr;
}

/// Cuts the first `front` bytes off a view, of which `size` are to stay. @return what is left; null
/// with nothing left.
void* without_front(void* view, std::size_t front, std::size_t size)
{
    if (front == 0)
        return view;
    if (munmap(view, front) == 0)
        return static_cast<char*>(view) + front;

    const KeepErrno keep;
    munmap(view, front + size);
    return nullptr;
}

} // namespace

Anchor::~Anchor()
{
    const KeepErrno keep;
    Drop();
}

bool Anchor::Hold(int descriptor, Rights rights, By by)
{
    m_protection = rights == Rights::Read ? PROT_READ : PROT_READ | PROT_WRITE;
    if (!hold_page(descriptor))
        return false;
    if (by == By::Page || hold_descriptor(descriptor))
        return true;
    const KeepErrno keep;
    Drop();
    return false;
}

bool Anchor::hold_page(int descriptor)
{
    void* page = mmap(nullptr, page_size(), m_protection, MAP_SHARED, descriptor, 0);
    m_page = given(page, page_size());
    return m_page != nullptr;
}

bool Anchor::hold_descriptor(int descriptor)
{
    m_descriptor = fcntl(descriptor, F_DUPFD_CLOEXEC, 0);
    return m_descriptor >= 0;
}

void* Anchor::View(std::uint64_t offset, std::uint64_t size) const
{
    if (m_descriptor < 0)
        return view_from_page(offset, size);
    void* view =
        mmap(nullptr, size, m_protection, MAP_SHARED, m_descriptor, static_cast<off_t>(offset));
    return given(view, size);
}

void* Anchor::view_from_page(std::uint64_t offset, std::uint64_t size) const
{
    // An old size of 0 leaves the anchor where it is and maps its object once more. The new view
    // begins where the anchor does, at the file's first byte.
    void* view = mremap(m_page, 0, offset + size, MREMAP_MAYMOVE);
    return given(view, offset + size) != nullptr ? without_front(view, offset, size) : nullptr;
}

bool Anchor::Drop()
{
    if (m_page != nullptr && munmap(m_page, page_size()) != 0)
        return false;
    m_page = nullptr;
    const int descriptor = std::exchange(m_descriptor, -1);
    return descriptor < 0 || close(descriptor) == 0;
}
