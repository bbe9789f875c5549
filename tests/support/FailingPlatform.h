#ifndef SUPPORT_FAILINGPLATFORM_H
#define SUPPORT_FAILINGPLATFORM_H

#include "Platform/Platform.h"

#include <array>
#include <atomic>
#include <bit>
#include <mutex>
#include <utility>
#include <vector>

/// Passes everything on to another platform. Tests derive from it and override what they falsify.
class ForwardingPlatform : public Platform
{
public:
    explicit ForwardingPlatform(Platform& real) : m_real(real) {}

    void* CreateSharedMapping(const char* name, std::uint64_t size) override
    {
        return m_real.CreateSharedMapping(name, size);
    }
    void* OpenMapping(const char* name) override { return m_real.OpenMapping(name); }
    void* MapView(void* mapping, std::uint64_t offset, std::uint64_t size) override
    {
        return m_real.MapView(mapping, offset, size);
    }
    bool UnmapView(void* view, std::uint64_t size) override { return m_real.UnmapView(view, size); }
    bool CloseMapping(void* mapping) override { return m_real.CloseMapping(mapping); }
    int RemoveDeadMappings(const char* prefix) override
    {
        return m_real.RemoveDeadMappings(prefix);
    }
    unsigned long LastError() override { return m_real.LastError(); }
    void ErrorText(unsigned long error, char* text, std::size_t size) override
    {
        m_real.ErrorText(error, text, size);
    }
    long ProcessId() override { return m_real.ProcessId(); }
    long ThreadId() override { return m_real.ThreadId(); }
    bool OnFork(void (*prepare)(), void (*parent)(), void (*child)()) override
    {
        return m_real.OnFork(prepare, parent, child);
    }
    std::uint32_t AllocationGranularity() override { return m_real.AllocationGranularity(); }
    std::uint64_t PhysicalMemory() override { return m_real.PhysicalMemory(); }
    std::uint64_t AddressSpace() override { return m_real.AddressSpace(); }
    bool TrimWorkingSet(Views& views) override { return m_real.TrimWorkingSet(views); }
    void OnAllocationFailure(AllocationHandler handler) override
    {
        m_real.OnAllocationFailure(handler);
    }
    bool MallocIsHooked() override { return m_real.MallocIsHooked(); }
    const char* DefaultTempFolder() override { return m_real.DefaultTempFolder(); }
    char PathSeparator() override { return m_real.PathSeparator(); }
    void WriteStandardError(const char* text, std::size_t size) override
    {
        m_real.WriteStandardError(text, size);
    }

protected:
    ~ForwardingPlatform() = default;

    Platform& m_real;
};

/// Stands in front of the platform for as long as it lives and lets chosen calls fail.
///
/// A failing Create or View does nothing and gives null. A failing Close really closes and
/// answers false. A failing Unview leaves the view, which then ends with this object: views that
/// must outlive it can't be tested so.
class FailingPlatform final : public ForwardingPlatform
{
public:
    enum Kind : unsigned { Create = 1, View = 2, Unview = 4, Close = 8 };
    static constexpr unsigned Acquiring = Create | View;
    static constexpr unsigned Any = Create | View | Unview | Close;

    /// The `n`-th call (from 1) of the `kinds`, counted together, fails, and the `count` - 1
    /// calls after it.
    FailingPlatform(unsigned kinds, int n, int count = 1)
        : ForwardingPlatform(Platform::Get()), m_kinds(kinds), m_first(n), m_count(count)
    {
        s_error = 0;
        m_left.reserve(1024); // releasing calls are not to allocate, here either
        Platform::Replace(this);
    }
    ~FailingPlatform()
    {
        Platform::Replace(&m_real);
        for (const auto& [view, size] : m_left)
            m_real.UnmapView(view, size);
    }
    FailingPlatform(const FailingPlatform&) = delete;
    FailingPlatform& operator=(const FailingPlatform&) = delete;

    /// Whether a call has failed by this object.
    bool Fired() const { return m_fired; }

    /// How many calls of that kind came by, failed ones too.
    int Calls(Kind kind) const { return m_calls[index(kind)]; }

    void* CreateSharedMapping(const char* name, std::uint64_t size) override
    {
        if (fails(Create, no_space))
            return nullptr;
        return passed(m_real.CreateSharedMapping(name, size));
    }
    void* OpenMapping(const char* name) override
    {
        return fails(Create, no_space) ? nullptr : passed(m_real.OpenMapping(name));
    }
    void* MapView(void* mapping, std::uint64_t offset, std::uint64_t size) override
    {
        if (fails(View, no_memory))
            return nullptr;
        return passed(m_real.MapView(mapping, offset, size));
    }
    bool UnmapView(void* view, std::uint64_t size) override
    {
        if (!fails(Unview, no_memory))
            return passed(m_real.UnmapView(view, size));
        const std::lock_guard lock(m_mutex);
        m_left.emplace_back(view, size);
        return false;
    }
    bool CloseMapping(void* mapping) override
    {
        const bool failing = fails(Close, no_memory);
        const bool closed = m_real.CloseMapping(mapping);
        return failing ? false : passed(closed);
    }
    unsigned long LastError() override { return s_error != 0 ? s_error : m_real.LastError(); }

private:
    static constexpr unsigned long no_memory = 12;
    static constexpr unsigned long no_space = 28;

    static std::size_t index(Kind kind)
    {
        return static_cast<std::size_t>(std::countr_zero<unsigned>(kind));
    }

    /// Counts the call. @return whether it is to fail; LastError() tells `error` then.
    bool fails(Kind kind, unsigned long error)
    {
        ++m_calls[index(kind)];
        const int distance = (m_kinds & kind) != 0 ? ++m_seen - m_first : -1;
        if (distance < 0 || distance >= m_count)
            return false;
        m_fired = true;
        s_error = error;
        return true;
    }

    /// A real failure has the real cause.
    template <class Result>
    static Result passed(Result result)
    {
        if (!result)
            s_error = 0;
        return result;
    }

    static inline thread_local unsigned long s_error = 0;

    const unsigned m_kinds;
    const int m_first;
    const int m_count;
    std::array<std::atomic<int>, 4> m_calls{};
    std::atomic<int> m_seen = 0;
    std::atomic<bool> m_fired = false;
    std::mutex m_mutex;
    std::vector<std::pair<void*, std::uint64_t>> m_left; ///< views whose end failed
};

#endif
