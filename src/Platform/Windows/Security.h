#ifndef PLATFORM_WINDOWS_SECURITY_H
#define PLATFORM_WINDOWS_SECURITY_H

#include "Platform/Windows/System.h"

#include <cstddef>

/// A user's number in the system's form.
struct UserId {
    alignas(8) unsigned char bytes[SECURITY_MAX_SID_SIZE] = {};

    PSID Get() { return bytes; }
};

/// The user that a process runs for. @return false with the system's error.
bool FindUser(HANDLE process, UserId& user);

/// Who owns an open file.
bool FindOwner(HANDLE file, UserId& user);

/// Whether it is the user of this process.
bool IsThisUser(UserId& user);

/// Writes the user's name, or nothing, cut to `size` bytes with its zero. May allocate.
void WriteUserName(UserId& user, char* text, std::size_t size);

/// Who may do what with what is made.
class Rights
{
public:
    /// Every user may read; nobody else may write, whatever handle the creator has.
    static Rights AllRead();
    /// This user alone.
    static Rights OwnOnly();

    ~Rights();
    Rights(const Rights&) = delete;
    Rights& operator=(const Rights&) = delete;

    /// @return null, with the system's error, without memory.
    SECURITY_ATTRIBUTES* Get() { return m_descriptor != nullptr ? &m_attributes : nullptr; }

private:
    explicit Rights(const char* text);

    PSECURITY_DESCRIPTOR m_descriptor = nullptr;
    SECURITY_ATTRIBUTES m_attributes{};
};

#endif
