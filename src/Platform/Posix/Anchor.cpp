#include "Platform/Posix/Anchor.h"

#include "Platform/Posix/Scoped.h"

#include <sys/mman.h>
#include <unistd.h>

namespace
{

std::size_t page_size()
{
    return static_cast<std::size_t>(getpagesize());
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

bool Anchor::Hold(int descriptor)
{
    return hold(descriptor, PROT_READ | PROT_WRITE);
}

bool Anchor::HoldForReading(int descriptor)
{
    return hold(descriptor, PROT_READ);
}

bool Anchor::hold(int descriptor, int protection)
{
    void* page = mmap(nullptr, page_size(), protection, MAP_SHARED, descriptor, 0);
    if (page == MAP_FAILED)
        return false;
    m_page = page;
    return true;
}

void* Anchor::View(std::uint64_t offset, std::uint64_t size) const
{
    // An old size of 0 leaves the anchor where it is and maps its object once more. The new view
    // begins where the anchor does, at the file's first byte.
    void* view = mremap(m_page, 0, offset + size, MREMAP_MAYMOVE);
    return view == MAP_FAILED ? nullptr : without_front(view, offset, size);
}

bool Anchor::Drop()
{
    if (m_page != nullptr && munmap(m_page, page_size()) != 0)
        return false;
    m_page = nullptr;
    return true;
}
