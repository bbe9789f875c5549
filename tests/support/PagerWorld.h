#ifndef TESTS_SUPPORT_PAGERWORLD_H
#define TESTS_SUPPORT_PAGERWORLD_H

#include "Fibrex/WindowUnixMutex.h"
#include "Mem/Mem_Configuration.h"
#include "NRVlog/Zor_LogFile.h"

#include <cstdlib>
#include <string>
#include <vector>

/// The largest piece that is made ready whole: none, unless the run is told to.
inline unsigned int PrefetchOfThisRun()
{
    const char* const bytes = std::getenv("MEMPAGER_TEST_PREFETCH");
    return bytes == nullptr ? 0 : static_cast<unsigned int>(std::atoi(bytes));
}

/// A configuration for tests, with limits to the byte. In force for a scope.
class TestConfiguration : public MEM_MemoryConfiguration
{
public:
    inline static unsigned long long cache_limit;
    inline static unsigned int base_block_size;
    inline static unsigned int block_size_threshold;
    inline static unsigned int threshold_drift; // from one answer to the next
    inline static unsigned long long trim_limit;

    unsigned long long HeapCacheInBytes() override { return cache_limit; }
    unsigned int BaseBlockSize() override { return base_block_size; }
    unsigned int BlockSizeThreshold() override { return block_size_threshold += threshold_drift; }
    unsigned long long UnmapWorkingSetLimit() override { return trim_limit; }
    unsigned int PrefetchSize() override { return PrefetchOfThisRun(); }

    class Scope
    {
    public:
        Scope()
        {
            cache_limit = 1u << 20;
            base_block_size = 65536;
            block_size_threshold = 8192;
            threshold_drift = 0;
            trim_limit = 0;
            GetInstance()->SetInstance(new TestConfiguration);
        }
        ~Scope() { GetInstance()->SetInstance(nullptr); }
    };
};

/// Collects the log's lines up to a level for a scope.
class LogCapture
{
public:
    explicit LogCapture(int level = 5)
    {
        ZorGLog.SetLogLevel(level);
        ZorGLog.SetSink([this](const Zor_LogRecord& record) {
            WindowUnixGuard lock(&m_mutex);
            m_lines.push_back({record.level, std::string(record.function) + "|" + record.text});
        });
    }
    ~LogCapture()
    {
        ZorGLog.SetSink({});
        ZorGLog.SetLogLevel(3);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    /// How many lines of `level` begin with "function|text".
    int Count(int level, const std::string& beginning) const
    {
        int count = 0;
        for (const Line& line : m_lines)
            count += line.level == level && line.text.rfind(beginning, 0) == 0 ? 1 : 0;
        return count;
    }
    std::size_t Size() const { return m_lines.size(); }
    void Clear() { m_lines.clear(); }

private:
    struct Line {
        int level;
        std::string text;
    };
    WindowUnixMutex m_mutex;
    std::vector<Line> m_lines;
};

#endif
