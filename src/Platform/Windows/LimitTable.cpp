#include "Platform/LimitTable.h"

#include "Platform/Windows/LimitFacts.h"

namespace
{

using Platform::Subject;

constexpr int one = 0;
constexpr int mb = 20;

} // namespace

constexpr LimitRow LimitTable[] = {
    {Subject::SharedMemory, nullptr, one, "", nullptr}, // it is a part of what is committed
    {Subject::SharedMemoryNames, nullptr, one, "", nullptr},
    {Subject::Disk, "the temp folder's disk of %llu MB, %llu MB left", mb, "room for temp files",
     LookAtDisk},
    {Subject::DiskNames, nullptr, one, "", nullptr},
    {Subject::Quota, "the user's quota", one, "", nullptr},
    {Subject::Group, "the job's memory of %llu MB, at least %llu MB left", mb, "job", LookAtGroup},
    {Subject::Machine, nullptr, one, "machine's memory", LookAtMachine},
    {Subject::Commitment, "the machine's commit of %llu MB, %llu MB left", mb, "machine's commit",
     LookAtCommitment},
    {Subject::AddressSpace, "address space of %llu MB, %llu MB left in one stretch", mb,
     "address space", LookAtAddressSpace},
    {Subject::Maps, nullptr, one, "", nullptr},
    {Subject::FileSize, nullptr, one, "", nullptr},
    {Subject::Descriptors, nullptr, one, "", nullptr},
    {Subject::OpenFiles, nullptr, one, "", nullptr},
    {Subject::TempFolder, nullptr, one, "temp folder", LookAtTempFolder},
    {Subject::Views, nullptr, one, "", nullptr},
    {Subject::HugePages, nullptr, one, "", nullptr},
    {Subject::NamesAtLogout, nullptr, one, "names", LookAtNamesAtLogout},
    {Subject::Malloc, nullptr, one, "malloc", LookAtMalloc},
};

static_assert(IsInOrder(LimitTable), "a row stands where its subject's number says");
