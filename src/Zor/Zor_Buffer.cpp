#include "Zor/Zor_Buffer.h"

#include <bit>
#include <cstdint>

namespace
{

template <class Number>
void write_number(std::ostream& out, Number number)
{
    char bytes[sizeof number];
    for (std::size_t at = 0; at < sizeof bytes; ++at)
        bytes[at] = static_cast<char>(number >> (8 * at) & 0xff);
    out.write(bytes, sizeof bytes);
}

template <class Number>
Number read_number(std::istream& in)
{
    char bytes[sizeof(Number)];
    Number number = 0;
    if (!in.read(bytes, sizeof bytes))
        return number;
    for (std::size_t at = sizeof bytes; at-- > 0;)
        number = number << 8 | static_cast<unsigned char>(bytes[at]);
    return number;
}

std::string copy_of(const void* data, std::size_t size)
{
    return size == 0 ? std::string() : std::string(static_cast<const char*>(data), size);
}

} // namespace

Zor_oBuffer::Zor_oBuffer() : std::ostream(nullptr), m_bytes(std::ios_base::out)
{
    rdbuf(&m_bytes);
}

Zor_oBuffer::~Zor_oBuffer() = default;

Zor_oBuffer& Zor_oBuffer::operator<<(int value)
{
    return *this << static_cast<unsigned int>(value);
}

Zor_oBuffer& Zor_oBuffer::operator<<(unsigned int value)
{
    write_number<std::uint32_t>(*this, value);
    return *this;
}

Zor_oBuffer& Zor_oBuffer::Write64bitHandle(void* handle)
{
    write_number<std::uint64_t>(*this, reinterpret_cast<std::uintptr_t>(handle));
    return *this;
}

std::string Zor_oBuffer::Bytes() const
{
    return m_bytes.str();
}

Zor_iBuffer::Zor_iBuffer(const void* data, std::size_t size)
    : std::istream(nullptr), m_bytes(copy_of(data, size), std::ios_base::in)
{
    rdbuf(&m_bytes);
}

Zor_iBuffer::~Zor_iBuffer() = default;

Zor_iBuffer& Zor_iBuffer::operator>>(int& value)
{
    unsigned int number = 0;
    *this >> number;
    value = static_cast<int>(number);
    return *this;
}

Zor_iBuffer& Zor_iBuffer::operator>>(unsigned int& value)
{
    value = 0; // for a caller who lets the stream throw
    value = read_number<std::uint32_t>(*this);
    return *this;
}

Zor_iBuffer& Zor_iBuffer::Read64bitHandle(void*& handle)
{
    handle = nullptr;
    const std::uintptr_t bits = read_number<std::uint64_t>(*this);
    handle = std::bit_cast<void*>(bits);
    return *this;
}
