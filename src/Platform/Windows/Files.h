#ifndef PLATFORM_WINDOWS_FILES_H
#define PLATFORM_WINDOWS_FILES_H

#include "Platform/Windows/Failure.h"

#include <cstddef>
#include <cstdio>
#include <cstring>

/// A path in a buffer of its own. Each operation that sets it returns false with the system's error
/// if it can't.
class FilePath
{
public:
    /// The same file from whatever folder, on whatever disk, is the current one.
    bool SetAbsolute(const char* path)
    {
        const DWORD length = GetFullPathNameA(path, sizeof m_text, m_text, nullptr);
        return length != 0 && (length < sizeof m_text || Fail(ERROR_FILENAME_EXCED_RANGE));
    }

    /// `name`, which may be empty or a pattern, in the folder.
    bool Join(const char* folder, const char* name, const char* end = "")
    {
        const int length = std::snprintf(m_text, sizeof m_text, "%s\\%s%s", folder, name, end);
        return static_cast<std::size_t>(length) < sizeof m_text || Fail(ERROR_FILENAME_EXCED_RANGE);
    }

    const char* Text() const { return m_text; }

private:
    char m_text[4096];
};

/// The folder that a path is in, with the separator at its end; "" for the current one.
struct FolderOf {
    explicit FolderOf(const char* path);

    char text[4096] = "";
};

/// Calls `visit` with the names in a folder that begin with `prefix` as long as it returns true.
/// @return whether there are more.
template <class Visitor>
bool ForEachName(const char* folder, const char* prefix, Visitor visit)
{
    FilePath pattern;
    WIN32_FIND_DATAA entry;
    if (!pattern.Join(folder, prefix, "*"))
        return false;
    const HANDLE search = FindFirstFileA(pattern.Text(), &entry);
    if (search == INVALID_HANDLE_VALUE)
        return false;
    const std::size_t length = std::strlen(prefix);
    bool is_wanted = true;
    bool has_more = true;
    while (is_wanted && has_more) { // a short name, or one in other letters, is found as well
        if (std::strncmp(entry.cFileName, prefix, length) == 0)
            is_wanted = visit(static_cast<const char*>(entry.cFileName));
        has_more = FindNextFileA(search, &entry) != 0;
    }
    FindClose(search);
    return has_more;
}

/// What is known of the process that made a file and keeps it open.
enum class Holder { Lives, Gone, Unknown };

/// Asks the system, by opening the file as one who would remove it. Nothing else is done to it, and
/// what isn't a plain file is unknown. The last error tells the reason unless it is gone.
Holder HolderOf(const char* path);

/// The part of a path behind its last separator.
const char* LastPart(const char* path);

#endif
