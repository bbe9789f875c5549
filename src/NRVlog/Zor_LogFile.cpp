#include "NRVlog/Zor_LogFile.h"

#include "Fibrex/WindowUnixMutex.h"
#include "Platform/Inspection.h"
#include "Platform/KeepErrno.h"
#include "Platform/PerThread.h"
#include "Platform/PlainDecimals.h"
#include "Platform/Process.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <utility>

// All state is constant-initialised and never destroyed, and what a log line reads is read
// without a lock: lines come from new handlers, from under every lock, from children of a fork
// and from the last destructors.

constinit Zor_LogFile ZorGLog;

namespace
{

constexpr std::size_t kMostText = 1024; // with its zero
constexpr std::size_t kMostHead = 256;  // what the default sink writes before the text

// Levels ----------------------------------------------------------------------------------------

/// The level of everything, and the codes that have their own.
class Levels
{
public:
    unsigned char Of(int code) const noexcept
    {
        for (const std::atomic<std::uint64_t>& place : m_codes) {
            const std::uint64_t entry = place.load(std::memory_order_relaxed);
            if (entry == 0)
                break;
            if (entry >> 32 == static_cast<std::uint32_t>(code))
                return static_cast<unsigned char>(entry);
        }
        return m_all.load(std::memory_order_relaxed);
    }

    void SetAll(int level) noexcept
    {
        WindowUnixGuard lock(&m_setting);
        for (std::atomic<std::uint64_t>& place : m_codes)
            place.store(0, std::memory_order_relaxed);
        m_all.store(as_level(level), std::memory_order_relaxed);
    }

    void Set(int code, int level) noexcept
    {
        WindowUnixGuard lock(&m_setting);
        const std::uint64_t key = static_cast<std::uint32_t>(code);
        for (std::atomic<std::uint64_t>& place : m_codes) {
            const std::uint64_t entry = place.load(std::memory_order_relaxed);
            if (entry != 0 && entry >> 32 != key)
                continue;
            place.store(key << 32 | kTaken | as_level(level), std::memory_order_relaxed);
            return;
        }
    }

private:
    static constexpr std::uint64_t kTaken = 256; // no entry is 0

    static unsigned char as_level(int level)
    {
        return static_cast<unsigned char>(std::clamp(level, 0, 255));
    }

    WindowUnixMutex m_setting;
    std::atomic<unsigned char> m_all{3};
    std::atomic<std::uint64_t> m_codes[16]{}; // code, kTaken and level; the free ones at the end
};

constinit Levels levels;

// Sinks -----------------------------------------------------------------------------------------

PLATFORM_PER_THREAD PerThread<bool> inside_sink{false};

/// The host's sink. A sink that was replaced waits until no thread is inside any.
class Sinks
{
public:
    /// Puts a sink in place; an empty one for none.
    void Replace(Zor_LogFile::Sink sink)
    {
        Node* const node = sink ? new Node{std::move(sink)} : nullptr;
        if (Node* const before = m_current.exchange(node))
            retire(before);
        destroy_retired();
    }

    /// @return false if there is no sink for the record.
    bool Take(const Zor_LogRecord& record) noexcept
    {
        if (*inside_sink || m_current.load(std::memory_order_relaxed) == nullptr)
            return false;
        const Visit visit(m_visitors);
        Node* const node = m_current.load();
        if (node == nullptr)
            return false;
        Call call{node->sink, record};
        Platform::Process::Get().CallUncancelled(run, &call);
        return true;
    }

private:
    struct Node {
        Zor_LogFile::Sink sink;
        Node* next = nullptr;
    };

    struct Visit {
        explicit Visit(std::atomic<int>& visitors) noexcept : m_visitors(visitors)
        {
            *inside_sink = true;
            m_visitors.fetch_add(1);
        }
        ~Visit()
        {
            m_visitors.fetch_sub(1);
            *inside_sink = false;
        }
        Visit(const Visit&) = delete;
        Visit& operator=(const Visit&) = delete;

        std::atomic<int>& m_visitors;
    };

    struct Call {
        const Zor_LogFile::Sink& sink;
        const Zor_LogRecord& record;
    };

    /// Lets nothing out: neither an exception, nor a thread that is cancelled in there.
    static void run(void* call) noexcept
    {
        const auto& [sink, record] = *static_cast<Call*>(call);
        try {
            sink(record);
        } catch (...) {
            // The line is lost; the operation that logged it must not be.
        }
    }

    void retire(Node* node) noexcept
    {
        node->next = m_retired.load();
        while (!m_retired.compare_exchange_weak(node->next, node)) {
        }
    }

    void destroy_retired()
    {
        Node* list = m_retired.exchange(nullptr);
        // Whoever is in one of these came before it was replaced, so it is counted by now.
        const bool unused = m_visitors.load() == 0;
        while (list != nullptr) {
            Node* const node = std::exchange(list, list->next);
            if (unused)
                delete node;
            else
                retire(node);
        }
    }

    std::atomic<Node*> m_current{nullptr};
    std::atomic<Node*> m_retired{nullptr};
    std::atomic<int> m_visitors{0};
};

constinit Sinks sinks;

// Lines -----------------------------------------------------------------------------------------

struct Params {
    const char* source = "";
    const char* function = "";
    int line = 0;
    int level = 0;
    int module = 0;
};

PLATFORM_PER_THREAD PerThread<Params> granted{{}};

/// Room for a message, with room before it for the default sink's head and behind it for a
/// newline; on the stack as long as the message is short.
class Line
{
public:
    Line() = default;
    Line(const Line&) = delete;
    Line& operator=(const Line&) = delete;

    const char* Text() const noexcept { return m_text; }

    void Copy(std::string_view text) noexcept { m_text[text.copy(m_text, kMostText - 1)] = '\0'; }

    void Format(const char* format, va_list arguments) noexcept
    {
        va_list again;
        va_copy(again, arguments);
        const int length = std::vsnprintf(m_text, kMostText, format, arguments);
        if (length < 0)
            Copy(format);
        else if (const std::size_t size = static_cast<std::size_t>(length) + 1;
                 size > kMostText && grow(size))
            std::vsnprintf(m_text, size, format, again);
        va_end(again);
    }

    void WriteToStandardError(const Params& params) noexcept
    {
        char head[kMostHead];
        const int wanted =
            std::snprintf(head, sizeof head, "mempager %d %s: ", params.level, params.function);
        const std::size_t head_size =
            std::min(static_cast<std::size_t>(std::max(wanted, 0)), kMostHead - 1);
        char* const begin = m_text - head_size;
        std::memcpy(begin, head, head_size);

        char* end = m_text + std::strlen(m_text);
        if (end == m_text || end[-1] != '\n')
            *end++ = '\n'; // in place of the zero
        Platform::Process::Get().WriteStandardError(begin, static_cast<std::size_t>(end - begin));
    }

private:
    bool grow(std::size_t text_size) noexcept
    {
        m_large.reset(new (std::nothrow) char[kMostHead + text_size]);
        if (!m_large)
            return false; // what fits has been written
        m_text = m_large.get() + kMostHead;
        return true;
    }

    char m_small[kMostHead + kMostText];
    std::unique_ptr<char[]> m_large;
    char* m_text = m_small + kMostHead;
};

/// Makes %Iu, which printf understands otherwise or not at all, the %zu that is as long.
void translate(char* format) noexcept
{
    for (char* at = std::strchr(format, '%'); at != nullptr; at = std::strchr(at, '%')) {
        ++at;
        at += std::strspn(at, "-+ #0123456789.");
        if (at[0] == 'I' && at[1] == 'u')
            *at = 'z';
        if (*at != '\0')
            ++at; // past the second % of a pair, too
    }
}

void format_line(Line& line, const char* format, va_list arguments) noexcept
{
    const PlainDecimals plain;
    char copy[kMostText];
    const std::size_t size = std::strlen(format) + 1;
    if (size > sizeof copy)
        return line.Copy(format);
    std::memcpy(copy, format, size);
    translate(copy);
    line.Format(copy, arguments);
}

// The folder ------------------------------------------------------------------------------------

struct Folder {
    std::string path;
    Folder* before = nullptr; // kept: somebody may still read its path
};

constinit std::atomic<Folder*> folder{nullptr};
constinit char current_folder[] = ".";

std::string without_last_slash(const char* path)
{
    std::string result(path == nullptr || *path == '\0' ? current_folder : path);
    if (result.back() == '/' || result.back() == Platform::Inspection::Get().PathSeparator())
        result.pop_back();
    return result;
}

} // namespace

int Zor_LogFile::StoreParams(const char* source, const char* function, int line, int level,
                             int module, int /*flag*/) noexcept
{
    if (level > levels.Of(module * 10000))
        return 0;
    *granted = {source, function, line, level, module};
    return 1;
}

void Zor_LogFile::Log(const char* format, ...) noexcept
{
    const KeepErrno keep;
    const Params params = *granted; // a copy: to get memory for a long line may log
    Line line;
    va_list arguments;
    va_start(arguments, format);
    format_line(line, format, arguments);
    va_end(arguments);

    if (!sinks.Take({params.source, params.function, params.line, params.level, params.module,
                     line.Text()}))
        line.WriteToStandardError(params);
}

unsigned char Zor_LogFile::GetLogLevel(int code) const noexcept
{
    return levels.Of(code);
}

void Zor_LogFile::SetLogLevel(int level) noexcept
{
    levels.SetAll(level);
}

void Zor_LogFile::SetLogLevel(int code, int level) noexcept
{
    levels.Set(code, level);
}

void Zor_LogFile::SetSink(Sink sink)
{
    sinks.Replace(std::move(sink));
}

char* Zor_LogFile::GetLogConfigDir() noexcept
{
    Folder* const set = folder.load();
    return set == nullptr ? current_folder : set->path.data();
}

void Zor_LogFile::SetLogConfigDir(const char* path)
{
    auto next = std::make_unique<Folder>(Folder{without_last_slash(path)});
    if (next->path == GetLogConfigDir())
        return;
    next->before = folder.load();
    while (!folder.compare_exchange_weak(next->before, next.get())) {
    }
    static_cast<void>(next.release());
}
