#ifndef PLATFORM_POSIX_FOLDER_H
#define PLATFORM_POSIX_FOLDER_H

#include "Platform/Posix/Descriptors.h"
#include "Platform/Posix/Scoped.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <new>

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

/// Calls `visit` with the names in a folder that begin with `prefix`, allocating nothing.
template <class Visitor>
void ForEachName(const char* folder, const char* prefix, Visitor visit)
{
    const std::size_t length = std::strlen(prefix);
    const ScopedFile opened(OpenDescriptor(folder, O_RDONLY | O_DIRECTORY));
    alignas(dirent64) char buffer[8192];
    for (ssize_t size; (size = getdents64(opened.Get(), buffer, sizeof buffer)) > 0;) {
        for (ssize_t at = 0; at < size;) {
            const auto* entry = reinterpret_cast<const dirent64*>(buffer + at);
            if (std::strncmp(entry->d_name, prefix, length) == 0)
                visit(static_cast<const char*>(entry->d_name));
            at += entry->d_reclen;
        }
    }
}

/// Texts in a room of its own, which only grows when asked to.
class NameList
{
public:
    /// Forgets all and doubles the room. @return false without memory.
    bool Grow()
    {
        m_size = std::max<std::size_t>(2 * m_size, 8192);
        m_needed = 0;
        m_room.reset(new (std::nothrow) char[m_size]);
        return m_room != nullptr;
    }

    /// What has no room is counted, but not kept.
    void Add(const char* name)
    {
        const std::size_t size = std::strlen(name) + 1;
        if (m_needed + size <= m_size)
            std::memcpy(m_room.get() + m_needed, name, size);
        m_needed += size;
    }

    bool IsComplete() const { return m_needed <= m_size; }

    template <class Visitor>
    void ForEach(Visitor visit) const
    {
        for (std::size_t at = 0; at < m_needed; at += std::strlen(m_room.get() + at) + 1)
            visit(m_room.get() + at);
    }

private:
    std::unique_ptr<char[]> m_room;
    std::size_t m_size = 0;
    std::size_t m_needed = 0;
};

#endif
