#ifndef MEMPAGER_FILE_H
#define MEMPAGER_FILE_H

#include <cerrno>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <span>
#include <string>
#include <system_error>

namespace mempager
{
/// A function that is called with the progress of a long operation: (bytes done, bytes in all).
template <class F>
concept progress_function = std::invocable<F&, std::uint64_t, std::uint64_t>;

/// The progress function of those who don't want one.
struct no_progress {
    /// Takes how many bytes are done, and of how many.
    void operator()(std::uint64_t, std::uint64_t) const noexcept {}
};

namespace detail
{
[[noreturn]] inline void fail_file(const std::filesystem::path& path)
{
    const int number = errno != 0 ? errno : EIO;
    throw std::system_error(number, std::generic_category(), path.string());
}

/// A file that takes its name when it's whole.
class new_file
{
public:
    explicit new_file(const std::filesystem::path& path) : m_path(path), m_part(path)
    {
        m_part += ".part";
        errno = 0;
        if (m_file.open(m_part, std::ios::out | std::ios::binary | std::ios::trunc) == nullptr)
            fail_file(m_part);
    }
    ~new_file()
    {
        m_file.close();
        std::error_code ignored;
        if (!m_part.empty())
            std::filesystem::remove(m_part, ignored);
    }
    new_file(const new_file&) = delete;
    new_file& operator=(const new_file&) = delete;

    void write(std::span<const std::byte> bytes)
    {
        errno = 0;
        const auto size = static_cast<std::streamsize>(bytes.size());
        if (m_file.sputn(reinterpret_cast<const char*>(bytes.data()), size) != size)
            fail_file(m_part);
    }

    void commit()
    {
        errno = 0;
        if (m_file.close() == nullptr)
            fail_file(m_part);
        std::filesystem::rename(m_part, m_path);
        m_part.clear();
    }

private:
    std::filesystem::path m_path;
    std::filesystem::path m_part; // empty once it has its name
    std::filebuf m_file;
};

/// A file that is read from its beginning.
class old_file
{
public:
    explicit old_file(const std::filesystem::path& path)
        : m_path(path), m_size(std::filesystem::file_size(path))
    {
        errno = 0;
        if (m_file.open(path, std::ios::in | std::ios::binary) == nullptr)
            fail_file(m_path);
    }

    std::uint64_t size() const noexcept { return m_size; }

    void read(std::span<std::byte> bytes)
    {
        errno = 0;
        const auto size = static_cast<std::streamsize>(bytes.size());
        if (m_file.sgetn(reinterpret_cast<char*>(bytes.data()), size) != size)
            fail_file(m_path);
    }

private:
    std::filesystem::path m_path;
    std::uint64_t m_size;
    std::filebuf m_file;
};
} // namespace detail
} // namespace mempager

#endif
