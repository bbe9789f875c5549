// A process at its limit, with a cache to give up: hunts an allocation of the host's that fails
// although memory could be had, one that fails without a report, and a hook that changes what
// malloc and its kin promise.

#include "Platform/Posix/AllocationFailure.h"
#include "posix/support/Children.h"
#include "support/FailingNew.h"
#include "support/FullCache.h"
#include "support/PagerWorld.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <map>
#include <new>
#include <thread>

namespace
{
/// Runs `body` in a child with little address space, where malloc is hooked.
int UnderLimit(auto body)
{
    if (!MallocComesByHere())
        return not_permitted;
    return InChild([&] {
        Limit(RLIMIT_AS, 600 * kMB);
        return body();
    });
}

TEST(Reclaim, GivesEveryKindOfAllocationWhatTheCacheHolds)
{
    using Giver = void* (*)(std::size_t);
    const std::pair<const char*, Giver> givers[] = {
        {"new", [](auto bytes) { return ::operator new(bytes); }},
        {"malloc", [](auto bytes) { return std::malloc(bytes); }},
        {"calloc", [](auto bytes) { return std::calloc(bytes / 100, 100); }},
        {"realloc",
         [](auto bytes) -> void* {
             void* const old = std::memset(std::malloc(100000), 3, 100000);
             auto* const all = static_cast<char*>(std::realloc(old, bytes));
             return all && std::count(all, all + 100000, 3) == 100000 ? all : nullptr;
         }},
        {"reallocarray", [](auto bytes) { return reallocarray(nullptr, bytes / 8, 8); }},
        {"aligned_alloc", [](auto bytes) { return std::aligned_alloc(64, bytes); }},
        {"memalign", [](auto bytes) { return memalign(4096, bytes); }},
        {"valloc", [](auto bytes) { return valloc(bytes); }},
        {"posix_memalign",
         [](auto bytes) {
             void* result = nullptr;
             return posix_memalign(&result, 64, bytes) == 0 ? result : nullptr;
         }},
    };
    for (const auto& [name, give] : givers) {
        const int code = UnderLimit([give = give] {
            LogCapture log(3);
            FullCache cache(400);
            CHILD_CHECK(cache.MB() == 400);
            void* const memory = give(300 * kMB);
            CHILD_CHECK(memory != nullptr);
            std::memset(memory, 1, 299 * kMB);
            CHILD_CHECK(cache.MB() == 0, log.Size() == 0);
            std::free(memory);
            return cache.Whole() ? 0 : 2;
        });
        SKIP_IF_NOT_PERMITTED(code);
        EXPECT_EQ(code, 0) << name;
    }
}

CHILD_TEST(Reclaim, LetsAnOrdinaryProgramGoOnUntilTheCacheIsGoneAndTellsItThen, UnderLimit)
{
    int reports = 0; // counted as they come: there is no memory to keep them
    const char* const telling =
        MallocComesByHere() ? "An allocation of the process" : "Process is out of memory";
    ZorGLog.SetSink([&reports, telling](const Zor_LogRecord& record) {
        reports += std::string_view(record.text).starts_with(telling) ? 1 : 0;
    });
    FullCache cache(400);
    std::vector<std::string> texts;
    std::map<int, std::vector<int>> table;
    try {
        for (int i = 0; std::malloc(10000) != nullptr; ++i) {
            texts.push_back(std::string(10000, 'x'));
            table[i].resize(1000);
        }
    } catch (const std::bad_alloc&) {
    }
    CHILD_CHECK(texts.size() * 24000 > 350 * kMB, cache.MB() == 0, reports == 1);
    return 0;
}

CHILD_TEST(Reclaim, KeepsTheContractOfAFailureAndTheCacheWhereItCannotHelp, UnderLimit)
{
    LogCapture log(5);
    FullCache cache(100);
    volatile std::size_t most = ~std::size_t{0};
    void* untouched = &log;
    errno = 0;
    CHILD_CHECK(std::malloc(most) == nullptr, errno == ENOMEM);
    CHILD_CHECK(std::calloc(most / 2, 3) == nullptr);
    CHILD_CHECK(posix_memalign(&untouched, 24, 100) == EINVAL, untouched == &log);
    // Behind a pointer, since the compiler holds a failed realloc for a free.
    void* (*volatile reallocate)(void*, std::size_t) = std::realloc;
    void* const block = reallocate(std::malloc(100), 200);
    CHILD_CHECK(reallocate(block, most) == nullptr, cache.MB() == 100);

    errno = 0;
    CHILD_CHECK(posix_memalign(&untouched, 64, 900 * kMB) == ENOMEM, untouched == &log);
    CHILD_CHECK(cache.MB() == 0);
    CHILD_CHECK(reallocate(block, 900 * kMB) == nullptr, errno == ENOMEM);
    static_cast<char*>(block)[199] = 1;
    std::free(block);
    CHILD_CHECK(log.Count(3, "clear_cache_handler|\tTried to allocate: 900") == 1);
    try {
        ::operator delete(::operator new(901 * kMB));
    } catch (const std::bad_alloc&) {
        return log.Count(2, "clear_cache_handler|\tTried to allocate: 901") == 1 ? 0 : 2;
    }
    return 3;
}

CHILD_TEST(Reclaim, HelpsAllThreadsThatRunOutTogether, UnderLimit)
{
    LogCapture quiet(3);
    FullCache cache(400);
    for (unsigned round = 0; round < 10; ++round) {
        std::atomic<int> ready = 0, helped = 0;
        std::vector<std::jthread> threads;
        for (int thread = 0; thread < 4; ++thread)
            threads.emplace_back([&] {
                for (++ready; ready < 4;) {
                }
                void* const memory = std::malloc(70 * kMB);
                helped += memory != nullptr ? 1 : 0;
                for (++ready; ready < 8;) {
                }
                std::free(memory);
            });
        threads.clear();
        CHILD_CHECK(helped == 4);
        CHILD_CHECK(cache.Whole()); // and full again
    }
    return 0;
}

/// Whether a failure was mended: of malloc, or of operator new without malloc's being asked.
bool IsMended(bool of_malloc)
{
    if (of_malloc)
        return std::malloc(450 * kMB) != nullptr;
    const FailingNew failing(1);
    return ::operator new(100, std::nothrow) != nullptr;
}

TEST(Reclaim, ClearsWhomTheEnvironmentChooses)
{
    const struct {
        const char* setting;
        int cleared, reports;
    } cases[] = {{"NEW_HANDLER=0", 0, 1},   {"NEW_HANDLER=1", 1, 1},    {"NEW_HANDLER=2", 2, 1},
                 {"NEW_HANDLER=3", 3, 1},   {"NEW_HANDLER=none", 0, 1}, {"NEW_HANDLER=", 0, 1},
                 {"NEW_HANDLER=2nd", 2, 1}, {"OTHER=0", 3, 1},          {"DIS_NEW_HANDLER=", 0, 0}};
    for (const bool of_malloc : {false, true})
        for (const auto& now : cases) {
            const auto body = [of_malloc, now] {
                LogCapture log(3);
                putenv(strdup((std::string("VORTELIX_") + now.setting).data()));
                FullCache general(100), second(100, MEM_MemPager::GetHandleForMP());
                CHILD_CHECK(IsMended(of_malloc) == (now.cleared != 0));
                CHILD_CHECK((general.MB() == 0) == ((now.cleared & 2) != 0));
                CHILD_CHECK((second.MB() == 0) == ((now.cleared & 1) != 0));
                CHILD_CHECK(!IsMended(of_malloc));
                const int reports = of_malloc ? log.Count(3, "clear_cache_handler|An allocation")
                                              : log.Count(2, "clear_cache_handler|Process is");
                return reports == now.reports ? 0 : 2;
            };
            const int code = of_malloc ? UnderLimit(body) : InChild(body);
            SKIP_IF_NOT_PERMITTED(code);
            EXPECT_EQ(code, 0) << now.setting << ", malloc: " << of_malloc;
        }
}
} // namespace
