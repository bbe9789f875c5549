// A process at its limit, with a cache to give up: hunts an allocation of the host's that fails
// although memory could be had, one that fails without a report, and a hook that changes what
// malloc and its kin promise.

#include "Mem/Mem_Configuration.h"
#include "Mem/Mem_MemPager.h"
#include "Platform/Platform.h"
#include "support/Children.h"
#include "support/PagerWorld.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <malloc.h>
#include <map>
#include <new>
#include <string>
#include <vector>

namespace
{
constexpr std::size_t kMB = 1 << 20;
constexpr std::size_t kLimit = 600 * kMB;
constexpr unsigned kRegion = 10 * kMB;

/// A process with an address-space limit and `mb` of cached views.
class FullCache
{
public:
    explicit FullCache(unsigned mb, MEM_MemPager* pager = MEM_MemPager::GetHandle())
        : m_pager(pager), m_infos(mb * kMB / kRegion)
    {
        MEM_MemoryConfiguration::GetInstance()->SetCacheSize(2000);
        for (MEM_PagerInfo& info : m_infos) {
            m_filled = m_pager->Allocate(kRegion, &info, 0) == 0 && m_filled;
            std::memset(info.Ptr(), 7, kRegion);
            info.Unmap();
        }
    }
    bool Filled() const { return m_filled; }
    unsigned long long Cached() const
    {
        Mem_Status status;
        m_pager->GetCurrentStatus(status);
        return status.total_cached;
    }
    bool Whole()
    {
        bool whole = true;
        for (MEM_PagerInfo& info : m_infos) {
            whole = info.Map() == 0 && static_cast<char*>(info.Ptr())[kRegion - 1] == 7 && whole;
            info.Unmap();
        }
        return whole;
    }

private:
    MEM_MemPager* m_pager;
    bool m_filled = true;
    std::vector<MEM_PagerInfo> m_infos;
};

class Reclaim : public testing::Test
{
protected:
    void SetUp() override
    {
        if (!Platform::Get().MallocIsHooked())
            GTEST_SKIP() << "malloc isn't hooked in this build, and limits don't go with it";
    }
    /// Runs `body` in a child with the limit in force.
    static int UnderLimit(const std::function<int()>& body)
    {
        return InChild([&] {
            Limit(RLIMIT_AS, kLimit);
            return body();
        });
    }
};

/// Gives `bytes` by one of malloc's kin.
using Giver = std::function<void*(std::size_t bytes)>;

TEST_F(Reclaim, EveryKindOfAllocationGetsWhatTheCacheHolds)
{
    const std::map<std::string, Giver> givers = {
        {"new", [](std::size_t bytes) { return ::operator new(bytes); }},
        {"new_aligned",
         [](std::size_t bytes) { return ::operator new(bytes, std::align_val_t(4096)); }},
        {"malloc", [](std::size_t bytes) { return std::malloc(bytes); }},
        {"calloc", [](std::size_t bytes) { return std::calloc(bytes / 100, 100); }},
        {"realloc", [](std::size_t bytes) { return std::realloc(std::malloc(10), bytes); }},
        {"reallocarray", [](std::size_t bytes) { return reallocarray(nullptr, bytes / 8, 8); }},
        {"aligned_alloc", [](std::size_t bytes) { return std::aligned_alloc(64, bytes); }},
        {"memalign", [](std::size_t bytes) { return memalign(4096, bytes); }},
        {"valloc", [](std::size_t bytes) { return valloc(bytes); }},
        {"posix_memalign",
         [](std::size_t bytes) {
             void* result = nullptr;
             return posix_memalign(&result, 64, bytes) == 0 ? result : nullptr;
         }},
    };
    for (const auto& [name, give] : givers) {
        SCOPED_TRACE(name);
        EXPECT_EQ(UnderLimit([&give = give] {
                      LogCapture log(3);
                      FullCache cache(400);
                      CHILD_CHECK(cache.Filled() && cache.Cached() >= 400 * kMB);
                      void* const memory = give(300 * kMB);
                      CHILD_CHECK(memory != nullptr);
                      std::memset(memory, 1, 299 * kMB);
                      CHILD_CHECK(cache.Cached() == 0);
                      CHILD_CHECK(log.Size() == 0);
                      std::free(memory);
                      CHILD_CHECK(cache.Whole());
                      return 0;
                  }),
                  0);
    }
}

TEST_F(Reclaim, AnOrdinaryProgramGoesOnUntilTheCacheIsGoneAndIsToldThen)
{
    EXPECT_EQ(UnderLimit([] {
                  LogCapture log(5);
                  FullCache cache(400);
                  std::vector<std::string> texts;
                  std::map<int, std::vector<int>> table;
                  std::vector<void*> blocks;
                  blocks.reserve(100000);
                  try {
                      for (int i = 0;; ++i) {
                          texts.push_back(std::string(10000, 'x'));
                          table[i].resize(1000);
                          blocks.push_back(std::malloc(10000));
                          if (blocks.back() == nullptr)
                              break;
                      }
                  } catch (const std::bad_alloc&) {
                  }
                  const int reports = log.Count(2, "clear_cache_handler|Process is out");
                  CHILD_CHECK(texts.size() * 24000 > 350 * kMB);
                  CHILD_CHECK(cache.Cached() == 0);
                  CHILD_CHECK(reports == 1);
                  return 0;
              }),
              0);
}

TEST_F(Reclaim, AFailureKeepsItsContractAndSparesTheCacheWhereItCannotHelp)
{
    EXPECT_EQ(UnderLimit([] {
                  LogCapture log(5);
                  FullCache cache(100);
                  volatile std::size_t most = ~std::size_t{0};
                  void* untouched = &log;
                  errno = 0;
                  CHILD_CHECK(std::malloc(most) == nullptr && errno == ENOMEM);
                  CHILD_CHECK(std::calloc(most / 2, 3) == nullptr);
                  CHILD_CHECK(posix_memalign(&untouched, 24, 100) == EINVAL && untouched == &log);
                  // Behind a pointer, since the compiler holds a failed realloc for a free.
                  void* (*volatile reallocate)(void*, std::size_t) = std::realloc;
                  void* const block = reallocate(std::malloc(100), 200);
                  CHILD_CHECK(reallocate(block, most) == nullptr);
                  CHILD_CHECK(cache.Cached() == 100 * kMB);

                  errno = 0;
                  CHILD_CHECK(posix_memalign(&untouched, 64, 900 * kMB) == ENOMEM);
                  CHILD_CHECK(untouched == &log && cache.Cached() == 0);
                  CHILD_CHECK(reallocate(block, 900 * kMB) == nullptr && errno == ENOMEM);
                  static_cast<char*>(block)[199] = 1;
                  std::free(block);
                  const int reports = log.Count(2, "clear_cache_handler|\tTried to allocate: 900");
                  CHILD_CHECK(reports == 2);
                  int thrown = 0;
                  try {
                      ::operator delete(::operator new(901 * kMB));
                  } catch (const std::bad_alloc&) {
                      ++thrown;
                  }
                  CHILD_CHECK(thrown == 1);
                  CHILD_CHECK(log.Count(2, "clear_cache_handler|\tTried to allocate: 901") == 1);
                  return 0;
              }),
              0);
}

TEST_F(Reclaim, TheEnvironmentChoosesWhoIsCleared)
{
    for (const char* const mask : {"2", "1", "0", "none"}) {
        SCOPED_TRACE(mask);
        EXPECT_EQ(UnderLimit([mask] {
                      LogCapture quiet(1);
                      setenv("VORTELIX_NEW_HANDLER", mask, 1);
                      FullCache general(100);
                      FullCache second(100, MEM_MemPager::GetHandleForMP());
                      const bool got = std::malloc(450 * kMB) != nullptr;
                      const int wanted = std::atoi(mask);
                      CHILD_CHECK(got == (wanted != 0));
                      CHILD_CHECK((general.Cached() == 0) == ((wanted & 2) != 0));
                      CHILD_CHECK((second.Cached() == 0) == ((wanted & 1) != 0));
                      return 0;
                  }),
                  0);
    }
    EXPECT_EQ(UnderLimit([] {
                  setenv("VORTELIX_DIS_NEW_HANDLER", "", 1);
                  FullCache cache(400);
                  CHILD_CHECK(std::malloc(300 * kMB) == nullptr);
                  CHILD_CHECK(cache.Cached() == 400 * kMB);
                  return 0;
              }),
              0);
}
} // namespace
