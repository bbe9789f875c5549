#ifndef DEMO_MACHINE_H
#define DEMO_MACHINE_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

/// What the pager's regions can take of shared memory and, where that has no room, of the temp
/// folder's disk, in bytes, with a margin left for others.
std::uint64_t FindRoom();

/// The most address space that this process had at any time, in bytes; 0 if unknown. On Windows,
/// which keeps no such peak, the most private memory.
std::uint64_t MostAddressSpace();

/// Takes blocks of these sizes with malloc and fills them, in a child process.
/// @return how many it got; nothing if the child didn't live to tell.
std::optional<std::size_t> TryMalloc(const std::vector<std::uint64_t>& sizes);

#endif
