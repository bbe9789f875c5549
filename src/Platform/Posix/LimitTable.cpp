#include "Platform/LimitTable.h"

#include "Platform/Posix/LimitFacts.h"

namespace
{

using Platform::Subject;

constexpr int one = 0;
constexpr int mb = 20;

} // namespace

constexpr LimitRow LimitTable[] = {
    {Subject::SharedMemory, "/dev/shm of %llu MB, %llu MB left", mb, "shared memory",
     LookAtSharedMemory},
    {Subject::SharedMemoryNames, "/dev/shm of %llu files, %llu left", one, "names", LookAtNames},
    {Subject::Disk, "the temp folder's disk of %llu MB, %llu MB left", mb, "room for temp files",
     LookAtDisk},
    {Subject::DiskNames, "the temp folder's disk of %llu files, %llu left", one, "", nullptr},
    {Subject::Quota, "the user's disk quota", one, "", nullptr},
    {Subject::Group, "control group of %llu MB, %llu MB left, of which 16 or more are kept", mb,
     "control group", LookAtGroup},
    {Subject::Machine, "the machine's memory of %llu MB, %llu MB left, of which 16 are kept", mb,
     "machine's memory", LookAtMachine},
    {Subject::Commitment, "the machine's promises of %llu MB (vm.overcommit_memory), %llu MB left",
     mb, "machine's promises", LookAtCommitment},
    {Subject::AddressSpace, "address space of %llu MB (RLIMIT_AS), %llu MB left", mb,
     "address space", LookAtAddressSpace},
    {Subject::Maps, "%llu maps (vm.max_map_count), %llu left", one, "maps", LookAtMaps},
    {Subject::FileSize, "files of %llu bytes (RLIMIT_FSIZE)", one, "file size", LookAtFileSize},
    {Subject::Descriptors, "%llu open files (RLIMIT_NOFILE)", one, "descriptors",
     LookAtDescriptors},
    {Subject::OpenFiles, "the machine's open files (fs.file-max)", one, "", nullptr},
    {Subject::TempFolder, nullptr, one, "temp folder", LookAtTempFolder},
    {Subject::Views, nullptr, one, "views", LookAtViews},
    {Subject::HugePages, nullptr, one, "huge pages", LookAtHugePages},
    {Subject::NamesAtLogout, nullptr, one, "names at logout", LookAtNamesAtLogout},
    {Subject::Malloc, nullptr, one, "malloc", LookAtMalloc},
};

static_assert(IsInOrder(LimitTable), "a row stands where its subject's number says");
