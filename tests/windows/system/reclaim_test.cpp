// A process that gets no more memory, with a cache to give up: hunts a malloc or an operator new
// that fails while views wait in the cache, one that fails without a report, and a byte that is
// lost.

#include "Platform/Windows/Scoped.h"
#include "support/Child.h"
#include "support/FullCache.h"
#include "support/PagerWorld.h"

#include <gtest/gtest.h>

#include <memory>

namespace
{
constexpr int not_refused = 77;

bool SetLimitOfJob(std::size_t bytes)
{
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limit{};
    limit.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_PROCESS_MEMORY;
    limit.ProcessMemoryLimit = bytes;
    const ScopedHandle job(CreateJobObjectA(nullptr, nullptr));
    return SetInformationJobObject(job.Get(), JobObjectExtendedLimitInformation, &limit,
                                   sizeof limit) &&
           AssignProcessToJobObject(job.Get(), GetCurrentProcess());
}

CHILD_ROLE(RunsOutOfMemory)
{
    using Memory = std::unique_ptr<void, void (*)(void*)>;
    CHILD_CHECK(SetLimitOfJob(1500 * kMB));
    if (Memory(std::malloc(4000 * kMB), std::free) != nullptr)
        return not_refused;
    int reports = 0; // counted as they come: there is no memory to keep them
    ZorGLog.SetSink([&reports](const Zor_LogRecord& record) {
        const std::string_view text = record.text;
        reports += text.starts_with("An allocation of the process") ? 1 : 0;
        reports += text.starts_with("Process is out of memory") ? 1 : 0; // by new
    });
    FullCache cache(400);
    for (const bool by_new : {false, true}) {
        std::vector<Memory> all;
        int helped = 0;
        all.reserve(100);
        do {
            CHILD_CHECK(reports == 0);
            const bool was_full = cache.MB() == 400;
            all.emplace_back(by_new ? ::operator new(100 * kMB, std::nothrow)
                                    : std::malloc(100 * kMB),
                             std::free); // which a new of this runtime comes to
            helped += was_full && all.back() != nullptr && cache.MB() == 0 ? 1 : 0;
        } while (all.back() != nullptr);
        CHILD_CHECK(helped == 1);
        CHILD_CHECK(std::exchange(reports, 0) != 0);
        all.clear();
        CHILD_CHECK(cache.Whole()); // and full again
    }
    return 0;
}

TEST(Reclaim, GivesMallocAndNewWhatTheCacheHolds)
{
    const int code = Child("RunsOutOfMemory").End();
    if (code == not_refused)
        GTEST_SKIP() << "Wine keeps no job's limit; scripts/test_windows sets another one";
    EXPECT_EQ(code, 0);
}
} // namespace
