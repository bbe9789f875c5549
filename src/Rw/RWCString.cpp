#include "Rw/RWCString.h"

#include "Rw/RWBoundsErr.h"

#include <cstdint>
#include <limits>
#include <new>
#include <ostream>

namespace
{

constexpr std::size_t kMostBytes = std::numeric_limits<std::size_t>::max() / 4;

char to_lower(char byte)
{
    return byte >= 'A' && byte <= 'Z' ? static_cast<char>(byte - 'A' + 'a') : byte;
}

char* append(char* to, std::string_view bytes)
{
    return to + bytes.copy(to, bytes.size());
}

} // namespace

RWCString::RWCString(const char* text) : RWCString(joined(text_view(text), {})) {}

RWCString::RWCString(const char* bytes, std::size_t length) : RWCString(joined({bytes, length}, {}))
{
}

RWCString::RWCString(const RWCSubString& stretch)
    : RWCString(stretch.length() == stretch.m_string.length() ? stretch.m_string
                                                              : joined(stretch.view(), {}))
{
}

RWCString& RWCString::assign(const char* text)
{
    RWCString copy(text);
    return swap(copy);
}

RWCString& RWCString::assign(const RWCSubString& stretch)
{
    RWCString copy(stretch);
    return swap(copy);
}

RWCString& RWCString::operator+=(const RWCString& other)
{
    RWCString sum = *this + other;
    return swap(sum);
}

RWCString& RWCString::operator+=(const char* text)
{
    RWCString sum = joined(view(), text_view(text));
    return swap(sum);
}

RWCString operator+(const RWCString& a, const RWCString& b)
{
    if (a.isNull() || b.isNull())
        return a.isNull() ? b : a;
    return RWCString::joined(a.view(), b.view());
}

unsigned int RWCString::hash(caseCompare compare) const noexcept
{
    std::uint64_t hash = 14695981039346656037u; // FNV-1a
    for (const char byte : view()) {
        hash ^= static_cast<unsigned char>(compare == exact ? byte : to_lower(byte));
        hash *= 1099511628211u;
    }
    return static_cast<unsigned int>(hash ^ (hash >> 32));
}

RWCSubString RWCString::operator()(std::size_t position, std::size_t count) const
{
    if (position > length() || count > length() - position) {
        const std::size_t first_missing = position > length() ? position : length();
        RWThrow(RWBoundsErr(RWMessage(RWTOOL_INDEXERR(), first_missing, length())));
    }
    return RWCSubString(*this, position, count);
}

RWCString RWCString::joined(std::string_view a, std::string_view b)
{
    RWCString result;
    const std::size_t size = a.size() + b.size();
    if (size == 0)
        return result;
    if (a.size() > kMostBytes || b.size() > kMostBytes)
        throw std::bad_alloc();

    result.m_buffer = new (::operator new(sizeof(Buffer) + size + 1)) Buffer(size);
    *append(append(result.m_buffer->bytes(), a), b) = '\0';
    return result;
}

void RWCString::free_buffer(Buffer* buffer) noexcept
{
    buffer->~Buffer();
    ::operator delete(buffer);
}

std::ostream& operator<<(std::ostream& out, const RWCString& text)
{
    return out << std::string_view(text.data(), text.length());
}
