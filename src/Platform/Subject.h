#ifndef PLATFORM_SUBJECT_H
#define PLATFORM_SUBJECT_H

namespace Platform
{

/// What the library depends on and can run short of. First the limits, which an operation can meet
/// and Mappings::LastLimits() tells of, then circumstances that are only looked at.
///
/// A new one gets its name here, a row in each system's table (LimitTable.cpp in its folder),
/// and, if it is to be looked at, one in the table of what is wanted (src/Mem/Mem_Examination.cpp).
enum class Subject {
    SharedMemory,
    SharedMemoryNames,
    Disk, ///< that the temp folder is on
    DiskNames,
    Quota,         ///< the user's share of a disk
    Group,         ///< the memory of this process and those that are bounded together with it
    Machine,       ///< its memory
    Commitment,    ///< what the machine promises to all processes
    AddressSpace,  ///< of this process
    Maps,          ///< of this process
    FileSize,      ///< of each file
    Descriptors,   ///< of this process: what it keeps of open files
    OpenFiles,     ///< the machine's
    TempFolder,    ///< whether files can be made there
    Views,         ///< what they are made from
    HugePages,     ///< whether shared memory is made of them
    NamesAtLogout, ///< what becomes of them
    Malloc         ///< whether its failures come by this library
};

inline constexpr int LimitCount = static_cast<int>(Subject::OpenFiles) + 1;
inline constexpr int SubjectCount = static_cast<int>(Subject::Malloc) + 1;

} // namespace Platform

#endif
