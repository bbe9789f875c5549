#include "Platform/Posix/Anchor.h"

#include "Platform/Posix/Descriptors.h"
#include "Platform/Posix/HugePages.h"
#include "Platform/Posix/Limits.h"
#include "Platform/Posix/Scoped.h"

#include <atomic>
#include <cerrno>
#include <utility>

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

enum class Trial { NotYet, WillDo, WontDo };

constinit std::atomic<Trial> trial = Trial::NotYet;

/// An old size of 0 leaves a map where it is and maps its object once more.
void* map_anew(void* page, std::uint64_t size)
{
    return mremap(page, 0, size, MREMAP_MAYMOVE);
}

/// Without memory there is no outcome.
Trial try_page()
{
    const std::size_t size = page_size();
    void* page = mmap(nullptr, size, PROT_READ, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED)
        return Trial::NotYet;
    void* again = map_anew(page, size);
    const bool has_memory = again != MAP_FAILED || errno != ENOMEM;
    munmap(page, size);
    if (again != MAP_FAILED)
        munmap(again, size);
    else if (has_memory)
        return Trial::WontDo;
    return has_memory ? Trial::WillDo : Trial::NotYet;
}

} // namespace

bool Anchor::PagesWillDo()
{
    const KeepErrno keep;
    if (trial.load(std::memory_order_relaxed) == Trial::NotYet)
        trial.store(try_page(), std::memory_order_relaxed);
    return trial.load(std::memory_order_relaxed) == Trial::WillDo;
}

Anchor::~Anchor()
{
    const KeepErrno keep;
    Drop();
}

bool Anchor::Hold(int descriptor, Rights rights, By by)
{
    m_protection = rights == Rights::Read ? PROT_READ : PROT_READ | PROT_WRITE;
    if (!Identify(descriptor, m_identity) || !hold_page(descriptor))
        return false;
    if ((by == By::Page && PagesWillDo()) || hold_descriptor(descriptor))
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
    m_descriptor = Duplicate(descriptor);
    return m_descriptor >= 0;
}

/// The host may have closed it, as it closes all that it doesn't know, and opened another file. No
/// other file has the identity of one that a page holds.
bool Anchor::has_descriptor() const
{
    FileIdentity now;
    return m_descriptor >= 0 && Identify(m_descriptor, now) && now == m_identity;
}

void* Anchor::View(std::uint64_t offset, std::uint64_t size) const
{
    if (!has_descriptor())
        return view_from_page(offset, size);
    void* view =
        mmap(nullptr, size, m_protection, MAP_SHARED, m_descriptor, static_cast<off_t>(offset));
    if (view == MAP_FAILED || has_descriptor()) // still: another thread may just have closed it
        return given(view, size);
    munmap(view, size);
    return view_from_page(offset, size);
}

void* Anchor::view_from_page(std::uint64_t offset, std::uint64_t size) const
{
    if (!PagesWillDo())
        return errno = EBADF, nullptr;
    void* view = view_of_front(offset + size);
    return given(view, offset + size) != nullptr ? without_front(view, offset, size) : nullptr;
}

/// It begins where the page does. Only huge pages want it to lie at certain addresses.
void* Anchor::view_of_front(std::uint64_t size) const
{
    void* const place = PlaceForView(size, m_last.load(std::memory_order_relaxed));
    if (place == nullptr)
        return map_anew(m_page, size);
    void* const view = mremap(m_page, 0, size, MREMAP_MAYMOVE | MREMAP_FIXED, place);
    if (view == MAP_FAILED) {
        munmap(place, size);
        return map_anew(m_page, size);
    }
    m_last.store(view, std::memory_order_relaxed);
    return view;
}

bool Anchor::Drop()
{
    const bool closed = DropDescriptor(); // while the page keeps the file's identity
    if (m_page != nullptr && munmap(m_page, page_size()) != 0)
        return false;
    m_page = nullptr;
    return closed;
}

bool Anchor::DropDescriptor()
{
    const bool is_there = has_descriptor();
    const int descriptor = std::exchange(m_descriptor, -1);
    return !is_there || close(descriptor) == 0;
}
