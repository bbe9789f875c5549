#ifndef PLATFORM_POSIX_MEMORYLIMITS_H
#define PLATFORM_POSIX_MEMORYLIMITS_H

#include "Platform/Posix/ControlGroups.h"

#include <cstddef>
#include <cstdint>
#include <optional>

/// The least memory limit in bytes that is set on one of these groups; the greatest number if there
/// is none. Allocates nothing.
std::uint64_t ControlGroupLimit(const GroupFolders& folders);

/// Bytes of the machine's memory.
std::uint64_t MachineMemory();

/// The machine's memory at this moment, in bytes; 0 for what isn't known. Allocates nothing.
struct MemoryTable {
    MemoryTable();

    std::uint64_t total = 0;
    std::uint64_t available = 0;
    std::uint64_t swap = 0;
    std::uint64_t available_swap = 0;
    std::uint64_t committed = 0;    ///< that the machine has promised to its processes
    std::uint64_t commit_limit = 0; ///< that it may promise where it keeps to that limit
};

/// Whether the machine keeps to that limit.
bool KeepsToCommitment();

/// The most that this process may have of a resource at present, as getrlimit() names and tells it.
std::uint64_t SoftLimit(int resource);

/// Bytes of address space that the process takes, as the limit counts them; 0 if that isn't known.
std::uint64_t AddressSpaceInUse();

/// Bytes of address space that the process may have.
std::uint64_t AddressSpaceLimit();

/// How much memory this process can still take without the system having to end one. Remembers
/// the groups that bound this process and their limits, and the text given, so it is meant for a
/// short life. Allocates nothing.
class MemoryHeadroom
{
public:
    MemoryHeadroom();

    /// Of a process in these groups, and of a machine with such a table, in the form of /proc.
    MemoryHeadroom(const GroupFolders& folders, const char* machine);

    MemoryHeadroom(const MemoryHeadroom&) = delete;
    MemoryHeadroom& operator=(const MemoryHeadroom&) = delete;

    /// How many of `more` bytes can be taken at once so that a margin is left, for what other
    /// processes take meanwhile, in each of the groups and on the machine. Pages that hold a copy
    /// of what is on disk count as free. The nearer a limit, the fewer: many processes that look at
    /// the same time don't go past it together. `done` bytes were taken before and are given back
    /// if these can't be had. Fewer than `least` are of no use, if there are more to take.
    /// @return 0 with errno, ENOMEM, and the limit remembered, if there is none.
    std::uint64_t Grants(std::uint64_t more, std::uint64_t done = 0,
                         std::uint64_t least = LeastGrant);

    static constexpr std::uint64_t LeastGrant = std::uint64_t{1} << 16;

    /// The most that one of the two would bear; the greatest number where that isn't known.
    std::uint64_t LeftInGroups();
    std::uint64_t LeftOnMachine() const;

private:
    struct Group {
        const GroupVersion* version;
        const char* folder;
        std::uint64_t limit;
        std::optional<std::uint64_t> margin; ///< once it was needed
    };

    void find_limits();
    static std::uint64_t margin_of(Group& group);
    static std::uint64_t reclaimable_in(const Group& group);
    static std::uint64_t headroom_in(Group& group, std::uint64_t least, std::uint64_t enough,
                                     std::uint64_t done);
    std::uint64_t headroom_on_machine(std::uint64_t least, std::uint64_t done) const;

    const char* const m_machine;
    const GroupFolders m_folders;
    Group m_groups[GroupFolders::Most];
    std::size_t m_count = 0;
};

#endif
