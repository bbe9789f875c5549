#include "Platform/Windows/Inspection.h"

#include "Platform/SystemPlatform.h"
#include "Platform/Windows/Failure.h"
#include "Platform/Windows/Files.h"
#include "Platform/Windows/Scoped.h"
#include "Platform/Windows/Security.h"

#include <algorithm>

#include <psapi.h>

namespace
{

using Facts = Platform::Inspection::FileFacts;

std::uint64_t whole(DWORD high, DWORD low)
{
    return std::uint64_t{high} << 32 | low;
}

/// The system counts tenths of microseconds.
std::uint64_t seconds_since(const FILETIME& time)
{
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    const std::uint64_t then = whole(time.dwHighDateTime, time.dwLowDateTime);
    const std::uint64_t today = whole(now.dwHighDateTime, now.dwLowDateTime);
    return today < then ? 0 : (today - then) / 10'000'000;
}

/// No right to read is needed for what is asked of a thing here.
ScopedHandle open_to_ask(const char* path, DWORD access)
{
    return ScopedHandle(CreateFileA(
        path, access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
        OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
}

Facts::Kind kind_of(DWORD attributes)
{
    if ((attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0)
        return Facts::Kind::Other; // this library makes no links here
    if ((attributes & FILE_ATTRIBUTE_DIRECTORY) != 0)
        return Facts::Kind::Folder;
    return (attributes & FILE_ATTRIBUTE_DEVICE) != 0 ? Facts::Kind::Other : Facts::Kind::Plain;
}

void judge_plain(const char* path, Facts& facts)
{
    const Holder holder = HolderOf(path);
    facts.may_remove = holder != Holder::Unknown || GetLastError() != ERROR_ACCESS_DENIED;
    if (holder != Holder::Unknown)
        facts.mark = holder == Holder::Lives ? Facts::Mark::Held : Facts::Mark::Gone;
}

void read_owner(HANDLE file, Facts& facts)
{
    UserId owner;
    if (!FindOwner(file, owner))
        return;
    facts.is_own = IsThisUser(owner);
    WriteUserName(owner, facts.owner, sizeof facts.owner);
}

bool read_facts(const char* path, Facts& facts)
{
    BY_HANDLE_FILE_INFORMATION found;
    const ScopedHandle file = open_to_ask(path, READ_CONTROL);
    if (!file || !GetFileInformationByHandle(file.Get(), &found))
        return false;
    facts.kind = kind_of(found.dwFileAttributes);
    facts.identity[0] = found.dwVolumeSerialNumber;
    facts.identity[1] = whole(found.nFileIndexHigh, found.nFileIndexLow);
    facts.bytes = whole(found.nFileSizeHigh, found.nFileSizeLow);
    facts.age = seconds_since(found.ftCreationTime);
    read_owner(file.Get(), facts);
    if (facts.kind == Facts::Kind::Plain)
        judge_plain(path, facts);
    if (facts.kind == Facts::Kind::Folder)
        facts.may_list = static_cast<bool>(open_to_ask(path, FILE_LIST_DIRECTORY));
    return true;
}

constexpr std::uint64_t pages_at_once = 256;

/// At most so many pages, from `first` on.
bool count_resident(char* first, std::uint64_t page, std::uint64_t pages, std::uint64_t& resident)
{
    PSAPI_WORKING_SET_EX_INFORMATION found[pages_at_once] = {};
    for (std::uint64_t at = 0; at < pages; ++at)
        found[at].VirtualAddress = first + at * page;
    if (!QueryWorkingSetEx(GetCurrentProcess(), found, static_cast<DWORD>(pages * sizeof *found)))
        return false;
    resident = static_cast<std::uint64_t>(std::count_if(
        found, found + pages, [](const auto& one) { return one.VirtualAttributes.Valid != 0; }));
    return true;
}

} // namespace

Platform::Inspection& Platform::SystemInspection()
{
    return OnlyOne<WindowsInspection>();
}

char WindowsInspection::PathSeparator()
{
    return '\\';
}

bool WindowsInspection::AbsolutePath(const char* path, char* text, std::size_t size)
{
    FilePath absolute;
    const bool fits = absolute.SetAbsolute(path) &&
                      (std::strlen(absolute.Text()) < size || Fail(ERROR_FILENAME_EXCED_RANGE));
    return Reported(fits) && std::strcpy(text, absolute.Text()) != nullptr;
}

const char* WindowsInspection::DefaultTempFolder()
{
    return "C:\\";
}

const char* WindowsInspection::MappingFolder()
{
    return "";
}

bool WindowsInspection::FreeSpace(const char* folder, double* bytes)
{
    ULARGE_INTEGER own{};
    if (!Reported(GetDiskFreeSpaceExA(folder, &own, nullptr, nullptr) != 0))
        return false;
    *bytes = static_cast<double>(own.QuadPart);
    return true;
}

void WindowsInspection::ListFiles(const char* folder, const char* prefix,
                                  Platform::Mappings::Names& names)
{
    ForEachName(folder, prefix, [&names](const char* name) { return names.Take(name), true; });
}

bool WindowsInspection::Inspect(const char* path, FileFacts& facts)
{
    facts = {};
    return Reported(read_facts(path, facts));
}

/// Told if the process and the file have one owner.
void WindowsInspection::ProgramOf(const char* path, long process, char* text, std::size_t size)
{
    char program[4096] = "";
    DWORD length = sizeof program;
    UserId owner;
    UserId user;
    const ScopedHandle opened(
        OpenProcess(PROCESS_QUERY_INFORMATION, FALSE, static_cast<DWORD>(process)));
    const ScopedHandle file = open_to_ask(path, READ_CONTROL);
    text[0] = '\0';
    if (!opened || !file || !FindUser(opened.Get(), user) || !FindOwner(file.Get(), owner) ||
        !EqualSid(user.Get(), owner.Get()))
        return;
    if (QueryFullProcessImageNameA(opened.Get(), 0, program, &length))
        std::snprintf(text, size, "%s", LastPart(program));
}

bool WindowsInspection::ResidentBytes(Platform::Mappings::Views& views, std::uint64_t& bytes)
{
    constexpr std::uint64_t page = 4096;
    void* view = nullptr;
    bytes = 0;
    for (std::uint64_t size = 0; views.Next(view, size);)
        for (std::uint64_t done = 0; done < size; done += pages_at_once * page) {
            const std::uint64_t pages = std::min((size - done + page - 1) / page, pages_at_once);
            std::uint64_t resident = 0;
            if (!Reported(count_resident(static_cast<char*>(view) + done, page, pages, resident)))
                return false;
            bytes += resident * page;
        }
    return true;
}

/// No links are made here.
bool WindowsInspection::RemoveLostLink(const char*)
{
    return Reported(Fail(ERROR_INVALID_PARAMETER));
}
