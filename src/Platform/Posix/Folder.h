#ifndef PLATFORM_POSIX_FOLDER_H
#define PLATFORM_POSIX_FOLDER_H

#include "Platform/Posix/Descriptors.h"
#include "Platform/Posix/Scoped.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
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

/// As many names of a folder as a step takes, in a buffer on the stack.
class FewNames
{
public:
    /// Reads on from `place`, which is moved behind what was read, or tells that there is no more.
    void Read(const char* folder, std::int64_t& place, bool& ended)
    {
        const ScopedFile opened(OpenDescriptor(folder, O_RDONLY | O_DIRECTORY));
        if (lseek(opened.Get(), place, SEEK_SET) == place)
            m_size = getdents64(opened.Get(), m_buffer, sizeof m_buffer);
        ended = m_size <= 0;
        ForEach([&place](const dirent64& entry) { place = entry.d_off; });
    }

    template <class Visitor>
    void ForEach(const char* prefix, Visitor visit) const
    {
        ForEach([&, length = std::strlen(prefix)](const dirent64& entry) {
            if (std::strncmp(entry.d_name, prefix, length) == 0)
                visit(static_cast<const char*>(entry.d_name));
        });
    }

private:
    template <class Visitor>
    void ForEach(Visitor visit) const
    {
        for (ssize_t at = 0; at < m_size;) {
            const auto* entry = reinterpret_cast<const dirent64*>(m_buffer + at);
            visit(*entry);
            at += entry->d_reclen;
        }
    }

    alignas(dirent64) char m_buffer[4096];
    ssize_t m_size = -1;
};

/// Texts in a buffer of its own, which only grows when asked to.
class NameList
{
public:
    /// Forgets all and doubles the buffer. @return false without memory.
    bool Grow()
    {
        m_size = std::max<std::size_t>(2 * m_size, 8192);
        m_needed = 0;
        m_buffer.reset(new (std::nothrow) char[m_size]);
        return m_buffer != nullptr;
    }

    /// What doesn't fit is counted, but not kept.
    void Add(const char* name)
    {
        const std::size_t size = std::strlen(name) + 1;
        if (m_needed + size <= m_size)
            std::memcpy(m_buffer.get() + m_needed, name, size);
        m_needed += size;
    }

    bool IsComplete() const { return m_needed <= m_size; }

    template <class Visitor>
    void ForEach(Visitor visit) const
    {
        for (std::size_t at = 0; at < m_needed; at += std::strlen(m_buffer.get() + at) + 1)
            visit(m_buffer.get() + at);
    }

private:
    std::unique_ptr<char[]> m_buffer;
    std::size_t m_size = 0;
    std::size_t m_needed = 0;
};

#endif
