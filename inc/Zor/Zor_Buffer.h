#ifndef ZOR_ZOR_BUFFER_H
#define ZOR_ZOR_BUFFER_H

#include "mempager_export.h"

#include <cstddef>
#include <istream>
#include <ostream>
#include <sstream>
#include <string>

/// Bytes that one process writes and another reads with a Zor_iBuffer, in the same order.
///
/// Numbers are binary: little-endian, 4 bytes for an int, 8 for a handle. Bytes and texts go in
/// with write(), without a length. When there is no memory the stream fails, as any std::ostream.
/// Threads: one at a time.
class MEMPAGER_EXPORT Zor_oBuffer : public std::ostream
{
public:
    Zor_oBuffer();
    ~Zor_oBuffer() override;

    /// Writes a number in 4 bytes. Stands before std::ostream's, which writes text.
    Zor_oBuffer& operator<<(int value);
    /// The same.
    Zor_oBuffer& operator<<(unsigned int value);

    /// Writes a handle in 8 bytes. What it points to isn't read.
    Zor_oBuffer& Write64bitHandle(void* handle);

    /// All that was written up to now. Throws std::bad_alloc.
    std::string Bytes() const;

private:
    std::stringbuf m_bytes;
};

/// Reads what a Zor_oBuffer has written.
///
/// A number that isn't there in full reads as 0 and puts the stream into the failed state, in
/// which every further number reads as 0; read() gives bytes as any std::istream.
/// Threads: one at a time.
class MEMPAGER_EXPORT Zor_iBuffer : public std::istream
{
public:
    /// Reads from a copy of `size` bytes. `data` may be null if `size` is 0. Throws
    /// std::bad_alloc.
    Zor_iBuffer(const void* data, std::size_t size);
    ~Zor_iBuffer() override;

    /// Reads a number of 4 bytes.
    Zor_iBuffer& operator>>(int& value);
    /// The same.
    Zor_iBuffer& operator>>(unsigned int& value);

    /// Reads a handle of 8 bytes: a number that has a meaning in the writer's process only.
    Zor_iBuffer& Read64bitHandle(void*& handle);

private:
    std::stringbuf m_bytes;
};

#endif
