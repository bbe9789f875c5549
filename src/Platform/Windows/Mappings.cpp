#include "Platform/Windows/Mappings.h"

#include "Platform/LastError.h"
#include "Platform/Windows/Failure.h"
#include "Platform/Windows/Files.h"
#include "Platform/Windows/Limits.h"
#include "Platform/Windows/Scoped.h"
#include "Platform/Windows/Security.h"
#include "Platform/Windows/Views.h"

#include "Platform/SystemPlatform.h"

#include <cstring>
#include <memory>

namespace
{

/// What stands behind the handle of a mapping.
struct Mapping {
    ScopedHandle file; ///< of a mapping over a file that this process made
    ScopedHandle section;
    DWORD access = FILE_MAP_READ;
    std::uint64_t size = 0; ///< 0 for one that was opened: the system keeps views within it
};

using MappingOwner = std::unique_ptr<Mapping>;

DWORD low(std::uint64_t number)
{
    return static_cast<DWORD>(number);
}

DWORD high(std::uint64_t number)
{
    return static_cast<DWORD>(number >> 32);
}

MappingOwner allocate_mapping()
{
    MappingOwner mapping(new (std::nothrow) Mapping);
    if (mapping == nullptr)
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return mapping;
}

/// A backslash would lead to what other sessions or the system have; the others stand for folders
/// and disks in a file's name.
bool is_plain(const char* name)
{
    constexpr std::size_t longest_name = 255;
    const std::size_t length = std::strlen(name);
    if (length > longest_name)
        return Fail(ERROR_FILENAME_EXCED_RANGE);
    return (std::strspn(name, ".") < length && std::strpbrk(name, "\\/:") == nullptr) ||
           Fail(ERROR_INVALID_NAME);
}

/// The system tells a name that exists in three ways: by success, with a handle to what was there;
/// where that can't be written to, by a lack of rights; where it is another thing, by a bad handle.
bool make_section(Mapping& mapping, HANDLE file, Rights rights, const char* name,
                  std::uint64_t size)
{
    if (rights.Get() == nullptr)
        return false;
    SetLastError(ERROR_SUCCESS);
    mapping.section = ScopedHandle(
        CreateFileMappingA(file, rights.Get(), PAGE_READWRITE, high(size), low(size), name));
    const DWORD error = GetLastError();
    if (mapping.section && error != ERROR_ALREADY_EXISTS) {
        mapping.access = FILE_MAP_ALL_ACCESS;
        mapping.size = size;
        return true;
    }
    mapping.section.Close();
    const bool exists = error == ERROR_ACCESS_DENIED || error == ERROR_INVALID_HANDLE;
    return Fail(exists ? ERROR_ALREADY_EXISTS : error);
}

/// The file is opened so that nobody can remove it: by that others see that its creator lives.
bool make_file(Mapping& mapping, const char* path)
{
    Rights rights = Rights::OwnOnly();
    if (rights.Get() == nullptr)
        return false;
    mapping.file =
        ScopedHandle(CreateFileA(path, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, rights.Get(),
                                 CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr));
    return static_cast<bool>(mapping.file);
}

bool make_section_over_file(Mapping& mapping, const char* path, const char* name,
                            std::uint64_t size)
{
    if (make_section(mapping, mapping.file.Get(), Rights::OwnOnly(), name, size))
        return true;
    const KeepError keep;
    mapping.file.Close();
    DeleteFileA(path);
    return false;
}

bool lies_in(const Mapping& mapping, std::uint64_t offset, std::uint64_t size,
             std::uint32_t granularity)
{
    const std::uint64_t all = mapping.size != 0 ? mapping.size : UINT64_MAX;
    return (size != 0 && size <= all && offset <= all - size && offset % granularity == 0) ||
           Fail(ERROR_INVALID_PARAMETER);
}

} // namespace

Platform::Mappings& Platform::SystemMappings()
{
    return OnlyOne<WindowsMappings>();
}

void* WindowsMappings::CreateSharedMapping(const char* name, std::uint64_t size, const char*)
{
    ForgetLimits();
    MappingOwner mapping = allocate_mapping();
    const bool made = mapping != nullptr && is_plain(name) &&
                      make_section(*mapping, INVALID_HANDLE_VALUE, Rights::AllRead(), name, size);
    if (!Reported(made))
        return MeetNoCommitment(size), nullptr;
    return mapping.release();
}

void* WindowsMappings::CreateMappingOverFile(const char* path, const char* name, std::uint64_t size,
                                             FileFault* fault)
{
    ForgetLimits();
    FilePath absolute;
    MappingOwner mapping = allocate_mapping();
    *fault = FileFault::Mapping;
    if (!Reported(mapping != nullptr && is_plain(name)))
        return nullptr;
    *fault = FileFault::File;
    if (!Reported(absolute.SetAbsolute(path) && make_file(*mapping, absolute.Text())))
        return MeetNoRoom(path), nullptr;
    *fault = FileFault::Mapping;
    if (!Reported(make_section_over_file(*mapping, absolute.Text(), name, size)))
        return MeetNoRoom(path), nullptr;
    *fault = FileFault::None;
    return mapping.release();
}

void* WindowsMappings::OpenMapping(const char* name, const char*)
{
    ForgetLimits();
    MappingOwner mapping = allocate_mapping();
    if (!Reported(mapping != nullptr && is_plain(name)))
        return nullptr;
    mapping->section = ScopedHandle(OpenFileMappingA(FILE_MAP_READ, FALSE, name));
    return Reported(static_cast<bool>(mapping->section)) ? mapping.release() : nullptr;
}

/// The section first: the file's lock must outlive what is made of it.
bool WindowsMappings::CloseMapping(void* mapping)
{
    const MappingOwner owner(static_cast<Mapping*>(mapping));
    const bool closed = Reported(owner->section.Close());
    return Reported(owner->file.Close()) && closed;
}

void* WindowsMappings::MapView(void* mapping, std::uint64_t offset, std::uint64_t size)
{
    ForgetLimits();
    const Mapping& mapped = *static_cast<Mapping*>(mapping);
    void* view = nullptr;
    if (lies_in(mapped, offset, size, AllocationGranularity()))
        view = MapViewOfFile(mapped.section.Get(), mapped.access, high(offset), low(offset), size);
    if (!Reported(view != nullptr))
        return MeetNoAddresses(size), nullptr;
    NoteView(view);
    return view;
}

/// The note first: the address may be somebody else's as soon as the view has ended.
bool WindowsMappings::UnmapView(void* view, std::uint64_t)
{
    const bool was_noted = IsNotedView(view);
    ForgetView(view);
    if (Reported(UnmapViewOfFile(view) != 0))
        return true;
    if (was_noted)
        NoteView(view);
    return false;
}

std::uint32_t WindowsMappings::AllocationGranularity()
{
    static const DWORD granularity = [] {
        SYSTEM_INFO information;
        GetSystemInfo(&information);
        return information.dwAllocationGranularity;
    }();
    return granularity;
}

/// All of the process: the system has no call for single views of a section.
bool WindowsMappings::TrimWorkingSet(Views&)
{
    constexpr SIZE_T as_far_as_it_can = static_cast<SIZE_T>(-1);
    return Reported(
        SetProcessWorkingSetSize(GetCurrentProcess(), as_far_as_it_can, as_far_as_it_can) != 0);
}

Platform::Mappings::Cause WindowsMappings::LastCause()
{
    const DWORD error = Platform::LastError();
    if (error == ERROR_ALREADY_EXISTS || error == ERROR_FILE_EXISTS)
        return Cause::NameExists;
    return IsForLackOfSpace(error) ? Cause::Full : Cause::Other;
}

// Files, and what is left of them ----------------------------------------------------------------

bool WindowsMappings::RemoveFile(const char* path)
{
    return Reported(DeleteFileA(path) != 0);
}

/// A place is a number of names: the system's own has to be kept open.
void WindowsMappings::ListNames(const char* folder, const char* prefix, Place& place, Names& names)
{
    constexpr std::int64_t step = 64;
    std::int64_t number = 0;
    place.ended = !ForEachName(folder, prefix, [&](const char* name) {
        if (number++ < place.at)
            return true;
        names.Take(name);
        return number < place.at + step;
    });
    place.at = number;
}

/// The lock on the file decides, not the id: another process may have that by now.
Platform::Mappings::Creator WindowsMappings::CreatorOf(const char* path, long process)
{
    if (HolderOf(path) != Holder::Gone)
        return Creator::Running;
    const ScopedHandle opened(
        OpenProcess(PROCESS_QUERY_INFORMATION, FALSE, static_cast<DWORD>(process)));
    DWORD code = 0;
    return opened && GetExitCodeProcess(opened.Get(), &code) ? Creator::Ended : Creator::Gone;
}

bool WindowsMappings::RemoveDeadFile(const char* path)
{
    return Reported(HolderOf(path) == Holder::Gone && DeleteFileA(path) != 0);
}

/// Nothing is left of a section.
bool WindowsMappings::RemoveDeadMapping(const char*, const char*)
{
    return Reported(Fail(ERROR_FILE_NOT_FOUND));
}

Platform::Mappings::LimitsMet WindowsMappings::LastLimits(char* text, std::size_t size)
{
    return WriteMetLimits(text, size);
}
