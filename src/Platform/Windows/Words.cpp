#include "Platform/KeepErrno.h"
#include "Platform/TimeText.h"
#include "Platform/Windows/Failure.h"
#include "Platform/Windows/Files.h"
#include "Platform/Windows/Process.h"
#include "Platform/Windows/Scoped.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iterator>

namespace
{

/// A file that must be a plain one. Opening anything else could wait, or write elsewhere.
class PlainFile
{
public:
    PlainFile(const char* path, DWORD access, DWORD disposition)
        : m_file(open_unless_special(path, access, disposition))
    {
    }

    /// Looks again at what was opened.
    explicit operator bool() const
    {
        BY_HANDLE_FILE_INFORMATION facts;
        return m_file &&
               (GetFileType(m_file.Get()) == FILE_TYPE_DISK || Fail(ERROR_INVALID_NAME)) &&
               GetFileInformationByHandle(m_file.Get(), &facts) &&
               ((facts.dwFileAttributes & special) == 0 || Fail(ERROR_INVALID_NAME));
    }
    HANDLE Get() const { return m_file.Get(); }

private:
    static constexpr DWORD special = FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT;

    /// Paths of devices and pipes aren't opened, whose other end could act as this user.
    static HANDLE open_unless_special(const char* path, DWORD access, DWORD disposition)
    {
        constexpr DWORD share = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
        const bool is_device =
            std::strncmp(path, "\\\\.\\", 4) == 0 || std::strncmp(path, "\\\\?\\", 4) == 0;
        if (is_device)
            return SetLastError(ERROR_INVALID_NAME), INVALID_HANDLE_VALUE;
        return CreateFileA(path, access, share, nullptr, disposition,
                           FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT |
                               SECURITY_SQOS_PRESENT | SECURITY_ANONYMOUS,
                           nullptr);
    }

    const ScopedHandle m_file;
};

/// @return false with the system's error, and possibly with a part of it written.
bool write_all(HANDLE file, const char* text, std::size_t size)
{
    while (size != 0) {
        const auto step = static_cast<DWORD>(std::min<std::size_t>(size, 1 << 30));
        DWORD written = 0;
        if (!WriteFile(file, text, step, &written, nullptr) || written == 0)
            return false;
        text += written;
        size -= written;
    }
    return true;
}

/// A right to append alone: the system then does that whole, whoever else does.
bool add_to_file(const char* path, const char* text, std::size_t size)
{
    const PlainFile file(path, FILE_APPEND_DATA | SYNCHRONIZE, OPEN_ALWAYS);
    return file && write_all(file.Get(), text, size);
}

/// The program's or DLL's name that a call lies in, and how far from its begin.
void print_call(const void* call, char* text, std::size_t size)
{
    char path[MAX_PATH] = "";
    HMODULE module = nullptr;
    const bool found = GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT |
                                              GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                                          static_cast<const char*>(call), &module) != 0;
    if (found)
        GetModuleFileNameA(module, path, sizeof path);
    const auto at = reinterpret_cast<std::uintptr_t>(call);
    const std::uintptr_t begin = found ? reinterpret_cast<std::uintptr_t>(module) : 0;
    std::snprintf(text, size, "%s(+0x%llx) [0x%llx]\n", LastPart(path),
                  static_cast<unsigned long long>(at - begin), static_cast<unsigned long long>(at));
}

} // namespace

/// Asked of the kernel: what the older call tells depends on what the program says of itself.
void WindowsProcess::SystemName(char* text, std::size_t size)
{
    using GetVersionCall = LONG(NTAPI*)(OSVERSIONINFOW*);
    OSVERSIONINFOW version{};
    version.dwOSVersionInfoSize = sizeof version;
    if (const HMODULE ntdll = GetModuleHandleA("ntdll.dll"))
        if (const auto get = reinterpret_cast<GetVersionCall>(
                reinterpret_cast<void*>(GetProcAddress(ntdll, "RtlGetVersion"))))
            get(&version);
    std::snprintf(text, size, "Windows %lu.%lu.%lu", version.dwMajorVersion, version.dwMinorVersion,
                  version.dwBuildNumber);
}

void WindowsProcess::ProcessName(char* text, std::size_t size)
{
    char path[4096] = "";
    GetModuleFileNameA(nullptr, path, sizeof path - 1);
    std::snprintf(text, size, "%s", LastPart(path));
}

void WindowsProcess::TimeAndDate(char* text, std::size_t size)
{
    SYSTEMTIME now;
    GetLocalTime(&now);
    WriteTime(
        {now.wYear, now.wMonth, now.wDay, now.wDayOfWeek, now.wHour, now.wMinute, now.wSecond},
        text, size);
}

/// Without the line end that the system's texts have.
void WindowsProcess::ErrorText(unsigned long error, char* text, std::size_t size)
{
    char buffer[512] = "";
    DWORD length = FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                                  nullptr, error, 0, buffer, sizeof buffer, nullptr);
    while (length != 0 && static_cast<unsigned char>(buffer[length - 1]) <= ' ')
        buffer[--length] = '\0';
    if (length == 0)
        std::snprintf(buffer, sizeof buffer, "Error %lu", error);
    std::snprintf(text, size, "%s", buffer);
}

bool WindowsProcess::TruncateLongFile(const char* path, std::uint64_t most)
{
    const PlainFile file(path, GENERIC_WRITE, OPEN_EXISTING);
    LARGE_INTEGER length;
    return file && GetFileSizeEx(file.Get(), &length) &&
           static_cast<std::uint64_t>(length.QuadPart) > most &&
           SetFilePointerEx(file.Get(), {}, nullptr, FILE_BEGIN) && SetEndOfFile(file.Get());
}

bool WindowsProcess::AppendToFile(const char* path, const char* text, std::size_t size)
{
    return Reported(add_to_file(path, text, size));
}

void WindowsProcess::StackTrace()
{
    const KeepErrno keep;
    const KeepError keep_error;
    void* calls[62];
    const WORD count =
        CaptureStackBackTrace(0, static_cast<DWORD>(std::size(calls)), calls, nullptr);
    for (WORD at = 0; at < count; ++at) {
        char text[MAX_PATH + 64];
        print_call(calls[at], text, sizeof text);
        write_all(GetStdHandle(STD_ERROR_HANDLE), text, std::strlen(text));
    }
}

void WindowsProcess::WriteStandardError(const char* text, std::size_t size)
{
    const KeepErrno keep;
    const KeepError keep_error;
    write_all(GetStdHandle(STD_ERROR_HANDLE), text, size);
}
