#ifndef BENCH_SUPPORT_H
#define BENCH_SUPPORT_H

#include "ByItself.h"
#include "Mem/Mem_Configuration.h"
#include "Mem/Mem_MemPager.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

// What the benchmarks share. A peer works in shared memory too, wherever it lets its user choose.

constexpr std::size_t kMb = 1048576;
constexpr std::size_t kRegion = 8454144; // a region as the library makes it by itself
constexpr std::size_t kPage = 4096;

/// A benchmark that can't do its work has no figure.
inline void Require(bool holds, const char* what)
{
    if (holds)
        return;
    std::perror(what);
    std::exit(1);
}

inline MEM_MemPager& Pager()
{
    return *MEM_MemPager::GetHandle();
}

/// Sets the limit and starts with an empty cache.
inline void SetCacheLimit(unsigned int mb)
{
    MEM_MemoryConfiguration::GetInstance()->SetCacheSize(mb);
    Pager().ClearCache();
}

/// A piece that isn't mapped. Its memory has been used, so that nobody meets it first.
inline void Allocate(MEM_PagerInfo& piece, std::size_t size)
{
    Require(Pager().Allocate(static_cast<unsigned int>(size), &piece, 0) == 0, "Allocate");
    std::memset(piece.Ptr(), 1, size);
    piece.Unmap();
}

/// Reads all of `memory`, as fast as the compiler makes it.
BENCH_BY_ITSELF inline std::uint64_t Sum(const void* memory, std::size_t size)
{
    const auto* const words = static_cast<const std::uint64_t*>(memory);
    std::uint64_t sum = 0;
    for (std::size_t i = 0; i < size / sizeof *words; ++i)
        sum += words[i];
    return sum;
}

/// Writes one byte of each page.
BENCH_BY_ITSELF inline void TouchPages(void* memory, std::size_t size)
{
    auto* const bytes = static_cast<volatile char*>(memory);
    for (std::size_t at = 0; at < size; at += kPage)
        bytes[at] = 1;
}

/// Numbers that look random and are the same in each run and for each peer.
class Numbers
{
public:
    std::size_t Below(std::size_t end)
    {
        m_state ^= m_state << 13;
        m_state ^= m_state >> 7;
        m_state ^= m_state << 17;
        return static_cast<std::size_t>(m_state % end);
    }

private:
    std::uint64_t m_state = 88172645463325252;
};

/// A region as a program makes it by hand: a named file in shared memory, its space reserved.
class RawRegion
{
public:
    explicit RawRegion(std::size_t size) : m_size(size)
    {
        static int number = 0;
        m_name = "/mempager_bench_" + std::to_string(getpid()) + '_' + std::to_string(++number);
        m_file = shm_open(m_name.c_str(), O_CREAT | O_EXCL | O_RDWR, 0600);
        Require(m_file >= 0, "shm_open");
        Require(fallocate(m_file, 0, 0, static_cast<off_t>(size)) == 0, "fallocate");
    }
    ~RawRegion()
    {
        close(m_file);
        shm_unlink(m_name.c_str());
    }
    RawRegion(const RawRegion&) = delete;
    RawRegion& operator=(const RawRegion&) = delete;

    void* Map() const
    {
        void* const view = mmap(nullptr, m_size, PROT_READ | PROT_WRITE, MAP_SHARED, m_file, 0);
        Require(view != MAP_FAILED, "mmap");
        return view;
    }
    void Unmap(void* view) const { munmap(view, m_size); }

    int File() const { return m_file; }
    void Fill() const
    {
        void* const view = Map();
        std::memset(view, 1, m_size);
        Unmap(view);
    }
    const std::string& Name() const { return m_name; }

private:
    std::size_t m_size;
    std::string m_name;
    int m_file;
};

/// A region of the library is made for one piece, each page is written to, and it goes again.
inline void LifeInPager(std::size_t size)
{
    MEM_PagerInfo piece;
    Require(Pager().Allocate(static_cast<unsigned int>(size), &piece, 0) == 0, "Allocate");
    TouchPages(piece.Ptr(), size);
    piece.Unmap();
}

/// The same by hand, with a region of the library's size at least.
inline void RawLife(std::size_t size)
{
    const RawRegion region(std::max(size, kRegion));
    void* const view = region.Map();
    TouchPages(view, size);
    region.Unmap(view);
}

#endif
