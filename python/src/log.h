#ifndef MEMPAGER_PYTHON_LOG_H
#define MEMPAGER_PYTHON_LOG_H

#include <cstddef>
#include <vector>

/// The library's log on its way into Python's. Lines are written under the library's locks, by any
/// thread, so all that happens then is that a line is copied to a place that was there before. A
/// thread that has returned from the library, and holds the interpreter's lock, takes them from
/// there.
namespace mempager::python::log
{
/// One line as it is kept; texts are zero-terminated, and cut if they are too long.
struct record {
    std::size_t number = 0; ///< in the order of their writing
    int level = 0;          ///< 1 to 7, lower is graver
    int line = 0;           ///< in the source file
    char source[64] = "";
    char function[96] = "";
    char text[800] = "";
};

/// Sends the lines of the library here from now on. @throws std::bad_alloc.
void listen();

/// Whether any line waits. Threads: any.
bool is_waiting() noexcept;

/// The lines that wait, in order, and how many there was no place for since the last call.
/// Threads: those that hold the interpreter's lock. @throws std::bad_alloc, and no line is lost.
std::vector<record> take(std::size_t& lost);

/// Forgets all lines: in a child, where they are the parent's.
void forget() noexcept;
} // namespace mempager::python::log

#endif
