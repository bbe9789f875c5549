// A process that gets no more memory, with a cache to give up: hunts a malloc or an operator new
// that fails while views wait in the cache, one that fails without a report, and a byte that is
// lost.

#include "Mem/Mem_MemPager.h"
#include "Platform/Windows/Scoped.h"
#include "support/Child.h"
#include "support/PagerWorld.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <vector>

namespace
{
constexpr std::size_t MB = 1 << 20;
constexpr unsigned region = 10 * MB;
constexpr int not_refused = 77;

bool SetLimitOfJob(std::size_t bytes)
{
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limit{};
    limit.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_PROCESS_MEMORY;
    limit.ProcessMemoryLimit = bytes;
    const ScopedHandle job(CreateJobObjectA(nullptr, nullptr));
    return job &&
           SetInformationJobObject(job.Get(), JobObjectExtendedLimitInformation, &limit,
                                   sizeof limit) &&
           AssignProcessToJobObject(job.Get(), GetCurrentProcess());
}

/// The most that malloc gives in one piece, in steps of 100 MB.
std::size_t MostOfMalloc()
{
    std::size_t most = 0;
    for (void* memory = nullptr; most < 4000; most += 100, std::free(memory))
        if ((memory = std::malloc((most + 100) * MB)) == nullptr)
            break;
    return most;
}

/// A piece in each region; the views wait in the cache.
struct Cached {
    explicit Cached(std::size_t mb) : pieces(mb * MB / region)
    {
        for (MEM_PagerInfo& piece : pieces) {
            MEM_MemPager::GetHandle()->Allocate(region, &piece, 0);
            std::memset(piece.Ptr(), 7, region);
            piece.Unmap();
        }
    }
    unsigned long long MBytes() const
    {
        Mem_Status status;
        MEM_MemPager::GetHandle()->GetCurrentStatus(status);
        return status.total_cached / MB;
    }
    bool Whole()
    {
        std::size_t whole = 0;
        for (MEM_PagerInfo& piece : pieces) {
            whole += piece.Map() == 0 && static_cast<char*>(piece.Ptr())[region - 1] == 7 ? 1 : 0;
            piece.Unmap();
        }
        return whole == pieces.size();
    }
    std::vector<MEM_PagerInfo> pieces;
};

CHILD_ROLE(RunsOutOfMemory)
{
    CHILD_CHECK(SetLimitOfJob(1000 * MB));
    const std::size_t most = MostOfMalloc();
    if (most >= 4000)
        return not_refused;
    CHILD_CHECK(most > 200);
    int reports = 0; // counted as they come: there is no memory to keep them
    ZorGLog.SetSink([&reports](const Zor_LogRecord& record) {
        reports += std::string_view(record.text).starts_with("An allocation of the proc") ? 1 : 0;
    });
    MEM_MemoryConfiguration::GetInstance()->SetCacheSize(4000);
    Cached cache(most * 3 / 4);
    for (const bool by_new : {false, true}) {
        CHILD_CHECK(cache.MBytes() >= most / 2);
        void* const memory = by_new ? ::operator new((most - 100) * MB, std::nothrow)
                                    : std::malloc((most - 100) * MB);
        CHILD_CHECK(memory != nullptr);
        CHILD_CHECK(reports == 0);
        by_new ? ::operator delete(memory) : std::free(memory);
        CHILD_CHECK(cache.Whole()); // and full again
    }
    CHILD_CHECK(std::malloc(2 * most * MB) == nullptr);
    CHILD_CHECK(cache.MBytes() == 0);
    CHILD_CHECK(reports == 1);
    return 0;
}

TEST(Reclaim, GivesMallocAndNewWhatTheCacheHolds)
{
    const int code = Child("RunsOutOfMemory").End();
    if (code == not_refused)
        GTEST_SKIP() << "Wine 8.0 doesn't keep a job's limit of memory; scripts/test_windows runs "
                        "this once more with few addresses";
    EXPECT_EQ(code, 0);
}
} // namespace
