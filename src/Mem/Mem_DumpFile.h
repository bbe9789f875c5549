#ifndef MEM_DUMPFILE_H
#define MEM_DUMPFILE_H

#include <cstddef>
#include <streambuf>

/// Where a report's stream goes: the end of a plain file, at each std::endl, and in whole lines as
/// long as those fit the buffer, so that the lines of several processes don't mix. Allocates
/// nothing. Once something couldn't be written, nothing is: the stream fails.
/// Threads: one.
class Mem_DumpFile final : public std::streambuf
{
public:
    /// `path` must live as long.
    explicit Mem_DumpFile(const char* path);

protected:
    int sync() override;
    int_type overflow(int_type byte) override;

private:
    bool write_out(std::size_t size);
    std::size_t size_of_whole_lines() const;

    const char* const m_path;
    char m_buffer[4096];
};

#endif
