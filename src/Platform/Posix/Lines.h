#ifndef PLATFORM_POSIX_LINES_H
#define PLATFORM_POSIX_LINES_H

#include "Platform/Posix/Descriptors.h"
#include "Platform/Posix/Scoped.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <string_view>

#include <fcntl.h>
#include <unistd.h>

/// The lines of a file, read through a buffer of fixed size. A longer line comes in pieces.
class Lines
{
public:
    explicit Lines(const char* path) : m_file(OpenDescriptor(path, O_RDONLY)) {}

    bool Next(std::string_view& line)
    {
        if (line_length() == none)
            fill();
        if (m_begin == m_end)
            return false;
        line = {m_buffer + m_begin, std::min(line_length(), m_end - m_begin)};
        m_begin = std::min(m_begin + line.size() + 1, m_end);
        return true;
    }

private:
    static constexpr std::size_t none = std::string_view::npos;

    std::size_t line_length() const
    {
        return std::string_view(m_buffer + m_begin, m_end - m_begin).find('\n');
    }

    /// Moves the rest to the front and reads behind it.
    void fill()
    {
        std::memmove(m_buffer, m_buffer + m_begin, m_end - m_begin);
        m_end -= m_begin;
        m_begin = 0;
        while (m_end < sizeof m_buffer && read_more()) {
        }
    }

    bool read_more()
    {
        const ssize_t got = read(m_file.Get(), m_buffer + m_end, sizeof m_buffer - m_end);
        m_end += static_cast<std::size_t>(std::max<ssize_t>(got, 0));
        return got > 0 || (got < 0 && errno == EINTR);
    }

    const ScopedFile m_file;
    char m_buffer[8192];
    std::size_t m_begin = 0;
    std::size_t m_end = 0;
};

/// Takes the part before `separator` off the front; all if there is none.
inline std::string_view take(std::string_view& text, std::string_view separator)
{
    const std::size_t at = text.find(separator);
    const std::string_view part = text.substr(0, at);
    text.remove_prefix(at == text.npos ? text.size() : at + separator.size());
    return part;
}

#endif
