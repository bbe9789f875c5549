#ifndef PLATFORM_SUBJECT_H
#define PLATFORM_SUBJECT_H

namespace Platform
{

/// What the library depends on and can run short of. First the limits, which an operation can meet
/// and Mappings::LastLimits() tells of, then circumstances that are only looked at.
///
/// A new one gets its name here, a limit before TempFolder; docs/architecture.md tells what else
/// there is to do.
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
    TempFolder,    ///< whether files can be made in it
    Views,         ///< how views are made
    HugePages,     ///< whether shared memory is made of them
    NamesAtLogout, ///< whether the names of regions outlive the user's session
    Malloc         ///< whether this library is asked when malloc fails
};

/// TempFolder is the first that no operation can meet.
inline constexpr int LimitCount = static_cast<int>(Subject::TempFolder);
inline constexpr int SubjectCount = static_cast<int>(Subject::Malloc) + 1;

} // namespace Platform

#endif
