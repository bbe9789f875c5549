#include "Platform/Posix/Failure.h"
#include "Platform/Posix/Fork.h"
#include "Platform/Posix/Lines.h"
#include "Platform/Posix/Paths.h"
#include "Platform/Posix/Process.h"
#include "Platform/Posix/Reserve.h"
#include "Platform/Posix/TimeZone.h"
#include "Platform/Posix/WriteSignals.h"
#include "Platform/TimeText.h"

#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iterator>

#include <execinfo.h>
#include <sys/stat.h>
#include <sys/utsname.h>

namespace
{

/// A file that must be a plain one. Opening anything else could wait, or write elsewhere.
class PlainFile
{
public:
    PlainFile(const char* path, int flags) : m_file(open_unless_special(path, flags)) {}

    /// Looks again at what was opened.
    explicit operator bool()
    {
        return m_file && fstat(m_file.Get(), &m_status) == 0 &&
               (S_ISREG(m_status.st_mode) || Fail(EINVAL));
    }
    int Get() const { return m_file.Get(); }

    /// In bytes, once it has been seen to be one.
    std::uint64_t Length() const { return static_cast<std::uint64_t>(m_status.st_size); }

private:
    static int open_unless_special(const char* path, int flags)
    {
        struct stat status;
        if (lstat(path, &status) == 0 && !S_ISREG(status.st_mode))
            return errno = EINVAL, -1;
        return OpenDescriptor(path, flags | O_NOFOLLOW | O_NONBLOCK, 0666);
    }

    const ScopedFile m_file;
    struct stat m_status = {};
};

/// Writes a text to whatever the descriptor is of. No signal comes of it. @return false with errno.
bool write_all(int file, const char* text, std::size_t size)
{
    const NoWriteSignals quiet;
    while (size != 0) {
        const ssize_t written = write(file, text, size);
        if (written == 0 || (written < 0 && errno != EINTR))
            return false;
        const auto done = static_cast<std::size_t>(std::max<ssize_t>(written, 0));
        text += done;
        size -= done;
    }
    return true;
}

/// @return false with errno, and with a part of the text in the file if the disk is full.
bool add_to_file(const char* path, const char* text, std::size_t size)
{
    PlainFile file(path, O_WRONLY | O_APPEND | O_CREAT);
    if (!file || !FitsFileLimit(file.Length() + size))
        return false;
    return write_all(file.Get(), text,
                     size); // in one go, unless the disk is full or the limit near
}

} // namespace

void PosixProcess::SystemName(char* text, std::size_t size)
{
    utsname name{};
    uname(&name);
    std::snprintf(text, size, "%s %s", name.sysname, name.release);
}

void PosixProcess::ProcessName(char* text, std::size_t size)
{
    const NoCancellation calm;
    Lines lines("/proc/self/comm");
    std::string_view name;
    lines.Next(name);
    const std::size_t length = std::min(name.size(), size - 1);
    text[name.copy(text, length)] = '\0';
}

void PosixProcess::TimeAndDate(char* text, std::size_t size)
{
    const NoCancellation calm;
    using namespace std::chrono;
    const sys_seconds now(seconds(std::time(nullptr) + SecondsEast()));
    const sys_days today = floor<days>(now);
    const year_month_day date(today);
    const hh_mm_ss time(now - today);
    const auto number = [](auto part) { return static_cast<int>(part); };
    WriteTime({int{date.year()}, number(unsigned{date.month()}), number(unsigned{date.day()}),
               number(weekday(today).c_encoding()), number(time.hours().count()),
               number(time.minutes().count()), number(time.seconds().count())},
              text, size);
}

void PosixProcess::StackTrace()
{
    const KeepErrno keep;
    const NoCancellation calm;
    const NoWriteSignals quiet;
    void* calls[64];
    const int count = backtrace(calls, static_cast<int>(std::size(calls)));
    backtrace_symbols_fd(calls, count, STDERR_FILENO);
}

bool PosixProcess::TruncateLongFile(const char* path, std::uint64_t most)
{
    const NoFork whole;
    PlainFile file(path, O_WRONLY);
    return file && file.Length() > most && ftruncate(file.Get(), 0) == 0;
}

void PosixProcess::ErrorText(unsigned long error, char* text, std::size_t size)
{
    const NoCancellation calm;
    char buffer[256];
    std::snprintf(text, size, "%s", strerror_r(static_cast<int>(error), buffer, sizeof buffer));
}

bool PosixProcess::AppendToFile(const char* path, const char* text, std::size_t size)
{
    const NoFork whole;
    return Reported(add_to_file(path, text, size));
}

void PosixProcess::WriteStandardError(const char* text, std::size_t size)
{
    const KeepErrno keep;
    const NoCancellation calm;
    write_all(STDERR_FILENO, text, size);
}
