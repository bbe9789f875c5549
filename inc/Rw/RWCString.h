#ifndef RW_RWCSTRING_H
#define RW_RWCSTRING_H

/// @file
/// Strings that share their bytes.

#include "mempager_export.h"

#include <atomic>
#include <compare>
#include <cstddef>
#include <iosfwd>
#include <string_view>
#include <utility>

class RWCSubString;

/// A string of bytes with value semantics, zero bytes among them if need be.
///
/// Copies share one buffer, whose bytes nobody changes as long as it lives: copying, moving and
/// destroying never allocate and never throw. An empty string has no buffer. Everything else
/// that needs a buffer throws std::bad_alloc when there is none to be had, and the string is
/// then as it was.
///
/// Threads: any may read a string; one that changes it must be alone with it. Strings that share
/// a buffer are independent.
class MEMPAGER_EXPORT RWCString
{
public:
    /// What hash() takes for equal.
    enum caseCompare {
        exact,      ///< the same bytes
        ignoreCase, ///< letters of ASCII in either case
    };

    /// An empty string.
    constexpr RWCString() noexcept = default;

    /// A copy of a zero-terminated text; empty for null. Not explicit, so that a literal will do
    /// where a string is asked for.
    RWCString(const char* text);

    /// A copy of `length` bytes, zeros included. `bytes` may be null if `length` is 0.
    RWCString(const char* bytes, std::size_t length);

    /// The stretch as a string of its own; shares the buffer if the stretch is all of it.
    RWCString(const RWCSubString& stretch);

    /// The same string; shares the buffer.
    RWCString(const RWCString& other) noexcept : m_buffer(other.m_buffer) { share(); }
    /// Takes the buffer; `other` is empty afterwards.
    RWCString(RWCString&& other) noexcept : m_buffer(std::exchange(other.m_buffer, nullptr)) {}
    ~RWCString() { let_go(); }

    /// As assign(), which bears being given this string itself.
    // NOLINTNEXTLINE(bugprone-unhandled-self-assignment)
    RWCString& operator=(const RWCString& other) noexcept { return assign(other); }
    /// Takes the buffer; `other` is empty afterwards, unless it is this string.
    RWCString& operator=(RWCString&& other) noexcept
    {
        RWCString taken(std::move(other)); // first, so that a string may be moved to itself
        return swap(taken);
    }
    /// As assign().
    RWCString& operator=(const char* text) { return assign(text); }
    /// As assign().
    RWCString& operator=(const RWCSubString& stretch) { return assign(stretch); }

    /// Takes on a value, which may be a part of this string itself.
    RWCString& assign(const RWCString& other) noexcept
    {
        RWCString copy(other);
        return swap(copy);
    }
    /// The same of a zero-terminated text; null is empty.
    RWCString& assign(const char* text);
    /// The same of a stretch.
    RWCString& assign(const RWCSubString& stretch);

    /// Appends; other strings that share the buffer don't see it.
    RWCString& operator+=(const RWCString& other);
    /// The same of a zero-terminated text; null is empty.
    RWCString& operator+=(const char* text);

    /// Bytes, without the closing zero.
    std::size_t length() const noexcept { return m_buffer == nullptr ? 0 : m_buffer->length; }

    /// The bytes with a zero behind them; "" for an empty string. Good until this string changes.
    const char* data() const noexcept { return m_buffer == nullptr ? "" : m_buffer->bytes(); }

    /// Whether the string is empty.
    bool isNull() const noexcept { return m_buffer == nullptr; }

    /// The position of the last `byte`; all bits set if there is none.
    std::size_t last(char byte) const noexcept { return view().rfind(byte); }

    /// A number that equal strings share; with ignoreCase also those that differ in the case of
    /// ASCII letters only. The same in every process of one build, but no format to store.
    unsigned int hash(caseCompare compare = exact) const noexcept;

    /// The stretch of `length` bytes from `position` on. It shares the buffer.
    /// @throws RWBoundsErr if it doesn't lie within the string.
    RWCSubString operator()(std::size_t position, std::size_t length) const;

    /// Whether the bytes are the same.
    friend bool operator==(const RWCString& a, const RWCString& b) noexcept
    {
        return a.m_buffer == b.m_buffer || a.view() == b.view();
    }
    /// The same of a zero-terminated text; null is empty.
    friend bool operator==(const RWCString& a, const char* b) noexcept
    {
        return a.view() == text_view(b);
    }

    /// By bytes as unsigned numbers; where one string begins the other, the shorter comes first.
    friend std::strong_ordering operator<=>(const RWCString& a, const RWCString& b) noexcept
    {
        return a.view() <=> b.view();
    }
    /// The same of a zero-terminated text; null is empty.
    friend std::strong_ordering operator<=>(const RWCString& a, const char* b) noexcept
    {
        return a.view() <=> text_view(b);
    }

    /// The bytes of both, one behind the other. Throws std::bad_alloc.
    friend MEMPAGER_EXPORT RWCString operator+(const RWCString& a, const RWCString& b);

private:
    friend class RWCSubString;
    friend class RWCTokenizer;
    friend struct Mem_TestAccess;

    /// @cond
    /// The head of a buffer; the bytes and a zero stand right behind it, in one allocation.
    struct Buffer {
        explicit Buffer(std::size_t size) noexcept : length(size) {}
        char* bytes() noexcept { return reinterpret_cast<char*>(this + 1); }

        std::atomic<std::size_t> holders{1};
        const std::size_t length;
    };
    /// @endcond

    static std::string_view text_view(const char* text) noexcept
    {
        return text == nullptr ? std::string_view() : std::string_view(text);
    }
    std::string_view view() const noexcept { return {data(), length()}; }

    void share() noexcept
    {
        // Whoever copies holds the buffer already, so the count needs no ordering.
        if (m_buffer != nullptr)
            m_buffer->holders.fetch_add(1, std::memory_order_relaxed);
    }
    void let_go() noexcept
    {
        if (m_buffer != nullptr && m_buffer->holders.fetch_sub(1, std::memory_order_acq_rel) == 1)
            free_buffer(m_buffer);
    }
    RWCString& swap(RWCString& other) noexcept
    {
        std::swap(m_buffer, other.m_buffer);
        return *this;
    }

    /// A string of the bytes of both; the one way to a new buffer.
    static RWCString joined(std::string_view a, std::string_view b);
    static void free_buffer(Buffer* buffer) noexcept;

    Buffer* m_buffer = nullptr;
};

/// A stretch of an RWCString, of which it holds a copy: it stays good when the string changes or
/// goes. Copies never throw. Threads: as an RWCString.
class MEMPAGER_EXPORT RWCSubString
{
public:
    /// An empty stretch.
    RWCSubString() noexcept = default;

    /// The first byte of the stretch; what stands behind its last is not a zero as a rule.
    /// Good as long as this object or a string that it was made from lives unchanged.
    const char* data() const noexcept { return m_string.data() + m_position; }

    /// Bytes.
    std::size_t length() const noexcept { return m_length; }

    /// Whether the stretch is empty.
    bool isNull() const noexcept { return m_length == 0; }

private:
    friend class RWCString;
    friend class RWCTokenizer;

    RWCSubString(const RWCString& string, std::size_t position, std::size_t length) noexcept
        : m_string(string), m_position(position), m_length(length)
    {
    }
    std::string_view view() const noexcept { return {data(), m_length}; }

    RWCString m_string;
    std::size_t m_position = 0;
    std::size_t m_length = 0;
};

/// Writes the bytes, as a std::string of them would be written.
MEMPAGER_EXPORT std::ostream& operator<<(std::ostream& out, const RWCString& text);

#endif
