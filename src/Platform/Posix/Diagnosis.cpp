#include "Platform/Posix/Diagnosis.h"

#include "Platform/Posix/Lines.h"

#include <charconv>
#include <cstdio>
#include <iterator>

#include <execinfo.h>
#include <sys/stat.h>
#include <sys/utsname.h>

namespace
{

/// Above it lies the kernel.
constexpr std::uint64_t top_of_addresses = std::uint64_t{1} << 47;

std::uint64_t hexadecimal(std::string_view text)
{
    std::uint64_t number = 0;
    std::from_chars(text.data(), text.data() + text.size(), number, 16);
    return number;
}

/// A dump file is a plain file. Opening anything else could wait, or write elsewhere.
constexpr int only_plain = O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

} // namespace

bool ReadAddressSpace(std::uint64_t limit, std::uint64_t& used, std::uint64_t& largest_free)
{
    used = 0;
    largest_free = 0;
    std::uint64_t last_end = 0;
    Lines lines("/proc/self/maps");
    for (std::string_view line; lines.Next(line);) {
        const std::uint64_t begin = hexadecimal(take(line, "-"));
        const std::uint64_t end = hexadecimal(take(line, " "));
        if (begin >= top_of_addresses || end < begin)
            continue;
        largest_free = std::max(largest_free, begin - std::min(begin, last_end));
        used += end - begin;
        last_end = end;
    }
    if (last_end == 0)
        return false;
    largest_free = std::max(largest_free, top_of_addresses - last_end);
    largest_free = std::min(largest_free, limit - std::min(limit, used));
    return true;
}

void WriteSystemName(char* text, std::size_t size)
{
    utsname name{};
    uname(&name);
    std::snprintf(text, size, "%s %s", name.sysname, name.release);
}

void WriteProcessName(char* text, std::size_t size)
{
    Lines lines("/proc/self/comm");
    std::string_view name;
    lines.Next(name);
    const std::size_t length = std::min(name.size(), size - 1);
    text[name.copy(text, length)] = '\0';
}

void WriteStackTrace()
{
    void* calls[64];
    const int count = backtrace(calls, static_cast<int>(std::size(calls)));
    backtrace_symbols_fd(calls, count, STDERR_FILENO);
}

long long LengthOfFile(const char* path)
{
    const ScopedFile file(open(path, O_RDONLY | only_plain));
    struct stat status;
    return file && fstat(file.Get(), &status) == 0 ? static_cast<long long>(status.st_size) : -1;
}

bool EmptyFile(const char* path)
{
    const ScopedFile file(open(path, O_WRONLY | only_plain));
    return file && ftruncate(file.Get(), 0) == 0;
}
