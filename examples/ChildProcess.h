#ifndef EXAMPLES_CHILDPROCESS_H
#define EXAMPLES_CHILDPROCESS_H

#include <cstdio>
#include <cstdlib>
#include <string>

#if defined(_WIN32)
#include <fcntl.h>
#include <io.h>
#include <process.h>
#else
#include <unistd.h>
#endif

// The same program once more, as a process of its own, on any system. What has to do with that has
// nothing to do with the pager.

inline long OwnProcess()
{
#if defined(_WIN32)
    return _getpid();
#else
    return getpid();
#endif
}

/// Another process of this program, which gets "reader" as its only argument and reads its standard
/// input until End().
class ReaderProcess
{
public:
    explicit ReaderProcess(const char* program)
    {
#if defined(_WIN32)
        const std::string command = "\"\"" + std::string(program) + "\" reader\"";
        m_line = _popen(command.c_str(), "wb");
#else
        const std::string command = "'" + std::string(program) + "' reader";
        m_line = popen(command.c_str(), "w");
#endif
    }
    ~ReaderProcess()
    {
        End();
    }
    ReaderProcess(const ReaderProcess&) = delete;
    ReaderProcess& operator=(const ReaderProcess&) = delete;

    /// @return whether all bytes are on their way.
    bool Send(const void* bytes, std::size_t size)
    {
        return m_line != nullptr && std::fwrite(bytes, 1, size, m_line) == size &&
               std::fflush(m_line) == 0;
    }

    /// Waits for its end. @return whether it ended with 0.
    bool End()
    {
        std::FILE* const line = m_line;
        m_line = nullptr;
#if defined(_WIN32)
        return line != nullptr && _pclose(line) == 0;
#else
        return line != nullptr && pclose(line) == 0;
#endif
    }

private:
    std::FILE* m_line = nullptr;
};

/// What the other process has sent to this one, a reader, up to `size` bytes. @return how many.
inline std::size_t Receive(void* bytes, std::size_t size)
{
#if defined(_WIN32)
    _setmode(_fileno(stdin), _O_BINARY);
#endif
    return std::fread(bytes, 1, size, stdin);
}

#endif
