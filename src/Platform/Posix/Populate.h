#ifndef PLATFORM_POSIX_POPULATE_H
#define PLATFORM_POSIX_POPULATE_H

#include <cstdint>

/// Whether this system finds pages ahead of their touch: Linux from 5.14 on, but for systems that
/// only look like it. Asked once in the process.
bool CanPopulate();

/// What pages are found for. To read, the system takes many at a time, and pages of shared memory
/// can be written to by that as well. To write, it goes from page to page: what was found to read
/// before is passed by quickly, and private memory gets its pages at once.
/// Soon: what lies on a disk is on its way, and nothing else is done.
enum class Populating { ToRead, ToWrite, Soon };

/// Whether a read of a page finds its neighbours, too, as Linux has it, for 16, unless told
/// otherwise. Finding all ahead for reading takes longer then than the reads do. Found out by
/// trying, once in the process.
bool ReadsFindNeighbours();

/// Finds the pages of [bytes, bytes + size), which need not begin or end a page.
/// @return false with errno; some may have been found then.
bool Populate(void* bytes, std::uint64_t size, Populating how);

#endif
