#ifndef TESTS_SUPPORT_PAGERWORLD_H
#define TESTS_SUPPORT_PAGERWORLD_H

#include "Fibrex/WindowUnixMutex.h"
#include "Mem/Mem_Configuration.h"
#include "Mem/Mem_Limits.h"
#include "NRVlog/Zor_LogFile.h"

#include <cstdlib>
#include <string>
#include <vector>

/// The largest piece that is made ready whole: none, unless the run is told to.
inline unsigned int prefetch_of_this_run = [] {
    const char* const bytes = std::getenv("MEMPAGER_TEST_PREFETCH");
    return bytes == nullptr ? 0 : static_cast<unsigned int>(std::atoi(bytes));
}();

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
    unsigned int PrefetchSize() override { return prefetch_of_this_run; }

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

/// Has the process's pagers keep what is beyond `swap_mb` in temp files, and 20 MB of views. They
/// stay at the files' settings that they find when the process first allocates.
inline void Configure(unsigned swap_mb, const std::string& temp = "", unsigned file_mb = 64)
{
    MEM_MemoryConfiguration_FileHeapParemeters files{temp.c_str(), file_mb, 10240, 0};
    MEM_MemoryConfiguration::GetInstance()->SetFileHeapParmeters(files);
    MEM_MemoryConfiguration::GetInstance()->SetSwapMaxSizeInMb(swap_mb);
    MEM_MemoryConfiguration::GetInstance()->SetCacheSize(20);
    MEM_MemoryConfiguration::GetInstance()->SetPrefetchSize(prefetch_of_this_run);
}

/// Collects the log's lines up to a level for a scope.
class LogCapture
{
public:
    explicit LogCapture(int level = 5)
    {
        tell_all();
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
    void Clear()
    {
        m_lines.clear();
        tell_all();
    }

private:
    /// Failures that were told before are news to whoever begins to listen.
    static void tell_all()
    {
        RegionLimits.ForgetRepeats();
        ViewLimits.ForgetRepeats();
    }

    struct Line {
        int level;
        std::string text;
    };
    WindowUnixMutex m_mutex;
    std::vector<Line> m_lines;
};

#endif
