#ifndef PLATFORM_WINDOWS_SCOPED_H
#define PLATFORM_WINDOWS_SCOPED_H

#include "Platform/Windows/System.h"

#include <new>
#include <utility>

/// Keeps clean-up from hiding the cause of a failure.
class KeepError
{
public:
    KeepError() : m_error(GetLastError()) {}
    ~KeepError() { SetLastError(m_error); }
    KeepError(const KeepError&) = delete;
    KeepError& operator=(const KeepError&) = delete;

private:
    const DWORD m_error;
};

/// Owns a handle of the system's, if it is one. Leaves the last error alone at its end.
class ScopedHandle
{
public:
    explicit ScopedHandle(HANDLE handle = nullptr) : m_handle(handle) {}
    ScopedHandle(ScopedHandle&& other) noexcept : m_handle(std::exchange(other.m_handle, nullptr))
    {
    }
    ScopedHandle& operator=(ScopedHandle&& other) noexcept
    {
        std::swap(m_handle, other.m_handle);
        return *this;
    }
    ~ScopedHandle()
    {
        const KeepError keep;
        Close();
    }

    explicit operator bool() const
    {
        return m_handle != nullptr && m_handle != INVALID_HANDLE_VALUE;
    }
    HANDLE Get() const { return m_handle; }

    /// @return false with the system's error; the handle is gone in any case.
    bool Close()
    {
        const bool is_open = static_cast<bool>(*this);
        const HANDLE handle = std::exchange(m_handle, nullptr);
        return !is_open || CloseHandle(handle) != 0;
    }

private:
    HANDLE m_handle;
};

/// The only object of a class, made at the first call in static storage and never destroyed.
template <class Class>
Class& OnlyOne()
{
    alignas(Class) static unsigned char place[sizeof(Class)];
    static Class* const made = new (place) Class;
    return *made;
}

#endif
