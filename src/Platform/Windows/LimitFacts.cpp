#include "Platform/Windows/LimitFacts.h"

#include "Platform/AddressSpaceUse.h"
#include "Platform/LimitTable.h"
#include "Platform/SystemPlatform.h"
#include "Platform/Units.h"
#include "Platform/Windows/AllocationFailure.h"
#include "Platform/Windows/Files.h"
#include "Platform/Windows/Inspection.h"
#include "Platform/Windows/MemoryLimits.h"
#include "Platform/Windows/Scoped.h"

#include <algorithm>
#include <cstdarg>

namespace
{

using Fact = Platform::Inspection::Fact;
using State = Fact::State;
using Number = unsigned long long; // what is printed by %llu

[[gnu::format(gnu_printf, 1, 2)]] std::string text(const char* format, ...)
{
    char buffer[4096 + 512];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(buffer, sizeof buffer, format, arguments);
    va_end(arguments);
    return buffer;
}

/// As printf takes it.
Number mb(std::uint64_t bytes)
{
    return WholeMb(bytes);
}

void set_numbers(Fact& fact, std::uint64_t most, std::uint64_t left)
{
    fact.is_bounded = true;
    fact.most = most;
    fact.left = left;
}

/// Tries it with a file that goes when it is closed. @return the system's error; 0 if it can be.
DWORD why_not_writable(const char* folder)
{
    char name[64];
    FilePath path;
    std::snprintf(name, sizeof name, "mempager%016llx.tmp",
                  Number{Platform::SystemProcess().RandomNumber()});
    if (!path.Join(folder, name))
        return GetLastError();
    const ScopedHandle file(CreateFileA(path.Text(), GENERIC_WRITE | DELETE, 0, nullptr, CREATE_NEW,
                                        FILE_ATTRIBUTE_TEMPORARY | FILE_FLAG_DELETE_ON_CLOSE,
                                        nullptr));
    return file ? ERROR_SUCCESS : GetLastError();
}

} // namespace

LookedAt::LookedAt(const char* folder) : temp_folder(folder), error(why_not_writable(folder))
{
    ULARGE_INTEGER own{};
    ULARGE_INTEGER all{};
    char root[4096];
    if (GetDiskFreeSpaceExA(folder, &own, &all, nullptr)) {
        size = all.QuadPart;
        free = own.QuadPart;
    }
    if (GetVolumePathNameA(folder, root, sizeof root))
        GetVolumeInformationA(root, nullptr, 0, nullptr, nullptr, nullptr, kind, sizeof kind);
}

std::vector<Fact> WindowsInspection::Look(const char* temp_folder)
{
    return LookAtAll(LookedAt(temp_folder));
}

void LookAtGroup(const LookedAt&, Fact& fact)
{
    const JobLimit job;
    fact.value = "no limit of memory";
    if (job.bytes == UINT64_MAX)
        return;
    set_numbers(fact, job.bytes, job.Left());
    fact.value = text("%llu MB of %llu MB never used", mb(fact.left), mb(fact.most));
    fact.cure = "have whoever started this program give its job {} MB";
}

void LookAtCommitment(const LookedAt&, Fact& fact)
{
    const MemoryTable now;
    if (now.commit_limit == 0)
        return;
    set_numbers(fact, now.commit_limit, now.CommitmentLeft());
    fact.value = text("%llu MB of %llu MB left", mb(fact.left), mb(fact.most));
    fact.cure = "end other programs, make the paging file larger";
}

/// What it lacks the paging file has, so by itself that is no failure.
void LookAtMachine(const LookedAt&, Fact& fact)
{
    const MemoryTable now;
    fact.value = text("%llu MB of %llu MB available", mb(now.available), mb(now.total));
}

void LookAtTempFolder(const LookedAt& folders, Fact& fact)
{
    fact.value = text("%s (%s)", folders.temp_folder, folders.kind);
    if (folders.error == ERROR_SUCCESS)
        return;
    char reason[256];
    Platform::SystemProcess().ErrorText(folders.error, reason, sizeof reason);
    fact.state = State::Unusable;
    fact.value = text("no file can be made in %s: %s", folders.temp_folder, reason);
}

void LookAtDisk(const LookedAt& folders, Fact& fact)
{
    if (folders.error != ERROR_SUCCESS)
        return; // the temp folder tells it
    set_numbers(fact, folders.size, folders.free);
    fact.value = text("%llu MB free", mb(folders.free));
}

void LookAtAddressSpace(const LookedAt&, Fact& fact)
{
    Platform::AddressSpaceUse use;
    if (!use.Read(Platform::SystemProcess()))
        return;
    set_numbers(fact, MemoryTable().address_space, use.LargestFree());
    fact.value = text("%llu MB free in one stretch", mb(use.LargestFree()));
}

void LookAtNamesAtLogout(const LookedAt&, Fact& fact)
{
    fact.value = "regions go with the last process that has them open, each session has its own";
}

void LookAtMalloc(const LookedAt&, Fact& fact)
{
    fact.value = "its failures come by this library";
    if (MallocComesByHere())
        return;
    fact.state = State::Doubtful;
    fact.value = "isn't hooked by this build; operator new is";
    fact.cure = "build with -DMEMPAGER_HOOK_MALLOC=ON";
}
