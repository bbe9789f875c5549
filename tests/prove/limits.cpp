// Lives of a pager at limits that other tests don't set, and with numbers at the ends of what their
// types hold. Hunts a signal, a lost byte, a refusal with the wrong reason, and what is left.
//     prove_limits 0 0

#include "prove/prove.h"
#include "support/Footprint.h"

#include <climits>
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

/// Allocates up to `count` pieces, at least `least`, looks at all of them and frees them.
int Life(unsigned size, unsigned count, unsigned least, Reason expected)
{
    const Footprint before = Footprint::Now();
    std::vector<MEM_PagerInfo> pieces(count);
    unsigned all = 0;
    for (; all < count; ++all) {
        if (MEM_MemPager::GetHandle()->Allocate(size, &pieces[all], 0) != 0)
            break;
        Prove::Fill(pieces[all], all);
        pieces[all].Unmap();
    }
    CHILD_CHECK(all >= least);
    CHILD_CHECK(all == count || Mem_Reason::Last().limit == expected);
    for (unsigned i = 0; i < all; ++i) {
        CHILD_CHECK(pieces[i].Map() == 0);
        CHILD_CHECK(Prove::IsFullOf(pieces[i], i));
        CHILD_CHECK(pieces[i].Unmap() == 0);
    }
    pieces.clear();
    CHILD_CHECK(Footprint::Now().names == before.names);
    CHILD_CHECK(Footprint::Now().maps == before.maps);
    return Footprint::Now().descriptors == before.descriptors ? 0 : 2;
}

/// Takes all mappings that there may be but 100: each second page differs from the next.
int AtTheMostMappings()
{
    std::size_t most = 0;
    std::ifstream("/proc/sys/vm/max_map_count") >> most;
    if (most > 300000)
        return not_permitted;
    constexpr int flags = MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE;
    auto* const first = static_cast<char*>(mmap(nullptr, most * 4096, PROT_NONE, flags, -1, 0));
    for (std::size_t page = 0; page < most - 100; page += 2)
        mprotect(first + page * 4096, 4096, PROT_READ);
    return Life(65536, 200, 30, Reason::Maps);
}

int WithNumbersAtTheirEnds()
{
    std::vector<std::pair<unsigned, int>> requests{{0, 0}, {UINT_MAX, 0}, {UINT_MAX, 4096}};
    for (const int alignment : {1, 3, 4096, 1 << 30, INT_MAX, INT_MIN, -1})
        requests.emplace_back(1, alignment);
    for (const auto& [size, alignment] : requests) {
        MEM_PagerInfo info;
        if (MEM_MemPager::GetHandle()->Allocate(size, &info, alignment) != 0)
            continue;
        CHILD_CHECK(info.GetAllocatedSize() == size);
        static_cast<char*>(info.Ptr())[size - 1] = 1;
    }
    return Life(MiB, 20, 20, Reason::Unknown);
}

template <unsigned All>
int WithSettings()
{
    settings().SetInstance(nullptr); // not the tests' own, which have numbers of theirs
    settings().SetBaseBlockSize(All);
    settings().SetBlockSizeThreshold(All);
    settings().SetCacheSize(All);
    settings().SetUnmapWorkingSetLimit(All);
    return Life(MiB, 20, 0, Reason::Setting);
}

constexpr struct {
    const char* name;
    int (*body)();
} cases[] = {
    {"64 descriptors",
     [] { return Limit(RLIMIT_NOFILE, 64), Life(3 * MiB, 99, 99, Reason::Descriptors); }},
    {"8 descriptors",
     [] { return Limit(RLIMIT_NOFILE, 8), Life(3 * MiB, 99, 99, Reason::Descriptors); }},
    {"8 descriptors, files only",
     [] {
         Limit(RLIMIT_NOFILE, 8);
         settings().SetSwapMaxSizeInMb(0);
         return Life(60 * MiB, 9, 1, Reason::Descriptors);
     }},
    {"no further process or thread",
     [] {
         CHILD_CHECK(GiveUpRights());
         return Limit(RLIMIT_NPROC, 0), Life(3 * MiB, 20, 20, Reason::Unknown);
     }},
    {"files of 9 MB",
     [] { return Limit(RLIMIT_FSIZE, 9 * MiB), Life(12 * MiB, 9, 0, Reason::FileSize); }},
    {"no locked memory",
     [] { return Limit(RLIMIT_MEMLOCK, 0), Life(3 * MiB, 20, 20, Reason::Unknown); }},
    {"address space of 300 MB",
     [] { return Limit(RLIMIT_AS, 300 * MiB), Life(3 * MiB, 200, 200, Reason::AddressSpace); }},
    {"a piece beyond that",
     [] { return Limit(RLIMIT_AS, 300 * MiB), Life(400 * MiB, 2, 0, Reason::AddressSpace); }},
    {"the most mappings", AtTheMostMappings},
    {"a disk without names",
     [] {
         CHILD_CHECK(Mount("tmpfs", settings().FileHeap_TempPath().data(), "nr_inodes=1"));
         settings().SetSwapMaxSizeInMb(0);
         return Life(3 * MiB, 9, 0, Reason::DiskNames);
     }},
    {"numbers at their ends", WithNumbersAtTheirEnds},
    {"settings of nothing", WithSettings<0>},
    {"settings of 1", WithSettings<1>},
    {"settings of 2^31", WithSettings<1u << 31>},
    {"settings of 2^32-1", WithSettings<UINT_MAX>},
};
} // namespace

int main()
{
    std::setvbuf(stdout, nullptr, _IONBF, 0);
    const TempFolder temp;
    if (!Prove::MountOwn())
        return not_permitted;
    int failed = 0, skipped = 0;
    long left = 0;
    for (const auto& now : cases) {
        const int code =
            InChildAmongOwnMounts([&] { return Prove::Settle(1500, temp.path), now.body(); });
        skipped += code == not_permitted;
        failed += code != 0 && code != not_permitted;
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
