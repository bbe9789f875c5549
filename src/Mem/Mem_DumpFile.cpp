#include "Mem/Mem_DumpFile.h"

#include "Platform/Process.h"

#include <algorithm>
#include <iterator>
#include <string_view>

Mem_DumpFile::Mem_DumpFile(const char* path) : m_path(path)
{
    setp(std::begin(m_buffer), std::end(m_buffer));
}

int Mem_DumpFile::sync()
{
    return write_out(static_cast<std::size_t>(pptr() - pbase())) ? 0 : -1;
}

Mem_DumpFile::int_type Mem_DumpFile::overflow(int_type byte)
{
    if (!write_out(size_of_whole_lines()))
        return traits_type::eof();
    return byte == traits_type::eof() ? 0 : sputc(traits_type::to_char_type(byte));
}

/// All there is, if it is one long line.
std::size_t Mem_DumpFile::size_of_whole_lines() const
{
    const std::string_view all(pbase(), static_cast<std::size_t>(pptr() - pbase()));
    const std::size_t last = all.rfind('\n');
    return last == all.npos ? all.size() : last + 1;
}

/// Writes the first `size` bytes and moves the rest to the front.
bool Mem_DumpFile::write_out(std::size_t size)
{
    if (size != 0 && !Platform::Process::Get().AppendToFile(m_path, m_buffer, size))
        return false;
    char* const end = std::copy(pbase() + size, pptr(), pbase());
    setp(std::begin(m_buffer), std::end(m_buffer));
    pbump(static_cast<int>(end - pbase()));
    return true;
}
