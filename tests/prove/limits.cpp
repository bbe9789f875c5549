// Lives of a pager at limits that other tests don't set, and with numbers at the ends of what their
// types hold. Hunts a signal, a lost byte, a refusal with the wrong reason, and what is left.
//     prove_limits 0 0

#include "Mem/Mem_MemPager.h"
#include "prove/prove.h"
#include "support/Footprint.h"
#include "support/PagerWorld.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <fstream>
#include <vector>

namespace
{
using Reason = Mem_Reason::Limit;
constexpr unsigned MiB = 1 << 20;

MEM_MemoryConfiguration& settings()
{
    return *MEM_MemoryConfiguration::GetInstance();
}

/// Allocates up to `count` pieces, looks at all of them and frees them.
/// @param most gets how many there were before the first refusal.
int Life(unsigned size, unsigned count, Reason expected, unsigned& most)
{
    const Footprint before = Footprint::Now();
    std::vector<MEM_PagerInfo> pieces(count);
    MEM_MemPager* const pager = MEM_MemPager::GetHandle();
    for (most = 0; most < count; ++most) {
        if (pager->Allocate(size, &pieces[most], 0) != 0) {
            CHILD_CHECK(Mem_Reason::Last().limit == expected);
            break;
        }
        static_cast<unsigned*>(pieces[most].Ptr())[size / 4 - 1] = most;
        pieces[most].Unmap();
    }
    for (unsigned i = 0; i < most; ++i) {
        CHILD_CHECK(pieces[i].Map() == 0);
        CHILD_CHECK(static_cast<unsigned*>(pieces[i].Ptr())[size / 4 - 1] == i);
        CHILD_CHECK(pieces[i].Unmap() == 0);
    }
    pieces.clear();
    CHILD_CHECK(Footprint::Now().names == before.names, Footprint::Now().maps == before.maps,
                Footprint::Now().descriptors == before.descriptors);
    return 0;
}

/// A life that is refused only if `may_be_refused`, and has room for `least` pieces.
int Bounded(unsigned size, unsigned count, unsigned least, Reason expected)
{
    unsigned most = 0;
    const int code = Life(size, count, expected, most);
    CHILD_CHECK(code == 0, most >= least, most < count || least == count);
    return 0;
}

void Open(unsigned keep)
{
    Limit(RLIMIT_NOFILE, keep);
}

/// Takes all mappings that the process may have but so many: each second page differs from the
/// next.
bool TakeMapsBut(unsigned left)
{
    unsigned long most = 0;
    std::ifstream("/proc/sys/vm/max_map_count") >> most;
    const std::size_t pages = most - left;
    if (most > 300000)
        return false;
    auto* const first = static_cast<char*>(
        mmap(nullptr, pages * 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
    for (std::size_t page = 0; page < pages; page += 2)
        mprotect(first + page * 4096, 4096, PROT_READ);
    settings().SetBaseBlockSize(0);
    return true;
}

int AtEnds()
{
    MEM_MemPager* const pager = MEM_MemPager::GetHandle();
    std::vector<std::pair<unsigned, int>> requests{{0, 0}, {UINT_MAX, 0}, {UINT_MAX, 4096}};
    for (const int alignment : {1, 3, 4096, 1 << 30, INT_MAX, INT_MIN, -1})
        requests.emplace_back(1, alignment);
    for (const auto& [size, alignment] : requests) {
        MEM_PagerInfo info;
        if (pager->Allocate(size, &info, alignment) != 0)
            continue;
        CHILD_CHECK(info.GetAllocatedSize() == size);
        auto* const bytes = static_cast<char*>(info.Ptr());
        bytes[0] = bytes[size - 1] = 1;
    }
    return Bounded(MiB, 20, 20, Reason::Unknown);
}

int WithSettings(unsigned all)
{
    settings().SetBaseBlockSize(all);
    settings().SetBlockSizeThreshold(all);
    settings().SetCacheSize(all);
    settings().SetUnmapWorkingSetLimit(all);
    unsigned most = 0;
    return Life(MiB, 20, Reason::Setting, most);
}

struct Case {
    const char* name;
    int (*body)();
};
const Case cases[] = {
    {"64 descriptors", [] { return Open(64), Bounded(3 * MiB, 200, 200, Reason::Descriptors); }},
    {"8 descriptors", [] { return Open(8), Bounded(3 * MiB, 200, 200, Reason::Descriptors); }},
    {"8 descriptors and files only",
     [] {
         return Open(8), settings().SetSwapMaxSizeInMb(0),
                Bounded(60 * MiB, 9, 1, Reason::Descriptors);
     }},
    {"no further process or thread",
     [] {
         CHILD_CHECK(GiveUpRights());
         Limit(RLIMIT_NPROC, 0);
         return Bounded(3 * MiB, 20, 20, Reason::Unknown);
     }},
    {"files of 9 MB",
     [] { return Limit(RLIMIT_FSIZE, 9 * MiB), Bounded(12 * MiB, 9, 0, Reason::FileSize); }},
    {"no locked memory",
     [] { return Limit(RLIMIT_MEMLOCK, 0), Bounded(3 * MiB, 20, 20, Reason::Unknown); }},
    {"address space of 300 MB",
     [] { return Limit(RLIMIT_AS, 300 * MiB), Bounded(3 * MiB, 200, 200, Reason::AddressSpace); }},
    {"a piece beyond the address space",
     [] { return Limit(RLIMIT_AS, 300 * MiB), Bounded(400 * MiB, 2, 0, Reason::AddressSpace); }},
    {"the most mappings",
     [] { return TakeMapsBut(100) ? Bounded(65536, 200, 30, Reason::Maps) : not_permitted; }},
    {"a disk without names",
     [] {
         CHILD_CHECK(Mount("tmpfs", settings().FileHeap_TempPath().data(), "nr_inodes=1"));
         settings().SetSwapMaxSizeInMb(0);
         return Bounded(3 * MiB, 9, 0, Reason::DiskNames);
     }},
    {"numbers at their ends", AtEnds},
    {"settings of nothing", [] { return WithSettings(0); }},
    {"settings of 1", [] { return WithSettings(1); }},
    {"settings of 2^31", [] { return WithSettings(1u << 31); }},
    {"settings of 2^32-1", [] { return WithSettings(UINT_MAX); }},
};
} // namespace

int main()
{
    std::setvbuf(stdout, nullptr, _IONBF, 0);
    const TempFolder temp;
    int failed = 0, skipped = 0;
    long left = 0;
    if (!Prove::MountOwn())
        return not_permitted;
    for (const Case& now : cases) {
        const int code = InChildAmongOwnMounts([&] {
            Configure(1500, temp.path);
            Prove::QuietLog(temp.path);
            return now.body();
        });
        failed += code != 0 && code != not_permitted ? 1 : 0;
        skipped += code == not_permitted ? 1 : 0;
        const long names = Prove::NamesAfterASweep(temp.path);
        left += names;
        if (code != 0 || names != 0)
            std::printf("%s: ended with %d, %ld names left\n", now.name, code, names);
    }
    std::printf("= %zu limits, %d of them not to be had here: %d with a signal, a lost byte or a "
                "wrong reason\nleft %ld\n",
                std::size(cases), skipped, failed, left);
    return failed == 0 && left == 0 ? 0 : 1;
}
