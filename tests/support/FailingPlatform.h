#ifndef SUPPORT_FAILINGPLATFORM_H
#define SUPPORT_FAILINGPLATFORM_H

#include "Platform/Inspection.h"
#include "Platform/LastError.h"
#include "Platform/Mappings.h"

#include <utility>
#include <vector>

/// Stands in front of one of the platform's interfaces for as long as it lives, and passes
/// everything on. Tests derive from it and override what they falsify.
template <class Interface>
class InFront : public Interface
{
public:
    InFront() : m_real(Interface::Get()) { Interface::Replace(this); }
    InFront(const InFront&) = delete;
    InFront& operator=(const InFront&) = delete;

protected:
    ~InFront() { Interface::Replace(&m_real); }

    Interface& m_real;
};

#define FORWARD(result, name, parameters, arguments)                                               \
    result name parameters override                                                                \
    {                                                                                              \
        return m_real.name arguments;                                                              \
    }

class ForwardingMappings : public InFront<Platform::Mappings>
{
public:
    FORWARD(void*, CreateSharedMapping, (const char* n, std::uint64_t s, const char* f), (n, s, f))
    FORWARD(void*, CreateMappingOverFile,
            (const char* p, const char* n, std::uint64_t s, FileFault* f), (p, n, s, f))
    FORWARD(void*, OpenMapping, (const char* n, const char* f), (n, f))
    FORWARD(bool, CloseMapping, (void* m), (m))
    FORWARD(void*, MapView, (void* m, std::uint64_t o, std::uint64_t s), (m, o, s))
    FORWARD(bool, UnmapView, (void* v, std::uint64_t s), (v, s))
    FORWARD(bool, Prefetch, (void* b, std::uint64_t s, Access a), (b, s, a))
    FORWARD(std::uint32_t, AllocationGranularity, (), ())
    FORWARD(bool, TrimWorkingSet, (Views & v), (v))
    FORWARD(std::uint64_t, HugeBytes, (const ViewSet& v), (v))
    FORWARD(void, PreferHugePages, (void* m, std::uint64_t s), (m, s))
    FORWARD(Cause, LastCause, (), ())
    FORWARD(std::uint32_t, LastLimits, (char* t, std::size_t s), (t, s))
    FORWARD(bool, RemoveFile, (const char* p), (p))
    FORWARD(void, ListNames, (const char* f, const char* p, Place& a, Names& n), (f, p, a, n))
    FORWARD(Creator, CreatorOf, (const char* p, long i), (p, i))
    FORWARD(bool, RemoveDeadFile, (const char* p), (p))
    FORWARD(bool, RemoveDeadMapping, (const char* f, const char* n), (f, n))
};

class ForwardingInspection : public InFront<Platform::Inspection>
{
public:
    FORWARD(char, PathSeparator, (), ())
    FORWARD(bool, AbsolutePath, (const char* p, char* t, std::size_t s), (p, t, s))
    FORWARD(const char*, DefaultTempFolder, (), ())
    FORWARD(const char*, MappingFolder, (), ())
    FORWARD(bool, FreeSpace, (const char* f, double* b), (f, b))
    FORWARD(void, ListFiles, (const char* f, const char* p, Platform::Mappings::Names& n),
            (f, p, n))
    FORWARD(bool, Inspect, (const char* p, FileFacts& f), (p, f))
    FORWARD(void, ProgramOf, (const char* p, long i, char* t, std::size_t s), (p, i, t, s))
    FORWARD(bool, RemoveLostLink, (const char* p), (p))
    FORWARD(std::vector<Fact>, Look, (const char* f), (f))
};
#undef FORWARD

/// Stands in front of the platform for as long as it lives and lets chosen calls fail.
///
/// A failing Create or View does nothing and gives null. A failing Close is really done and
/// answers false. A failing Unview leaves the view, which then ends with this object: views
/// that must outlive it can't be tested so. Threads: one at a time.
class FailingPlatform final : public ForwardingMappings
{
public:
    enum Kind : unsigned { Create = 1, View = 2, Unview = 4, Close = 8, Find = 16 };

    /// The `n`-th call (from 1) of the `kinds`, counted together, fails, and the `count` - 1
    /// calls after it.
    FailingPlatform(unsigned kinds, int n, int count = 1)
        : m_kinds(kinds), m_first(n), m_count(count)
    {
        s_injected = false;
        m_left.reserve(1024); // releasing calls are not to allocate, here either
    }
    ~FailingPlatform()
    {
        for (const auto& [view, size] : m_left)
            m_real.UnmapView(view, size);
    }

    /// Whether a call has failed by this object.
    bool Fired() const { return m_fired; }

    void* CreateSharedMapping(const char* name, std::uint64_t size, const char* spare) override
    {
        return fails(Create, 28) ? nullptr : passed(m_real.CreateSharedMapping(name, size, spare));
    }
    void* CreateMappingOverFile(const char* path, const char* name, std::uint64_t size,
                                FileFault* fault) override
    {
        *fault = FileFault::Mapping;
        return fails(Create, 28) ? nullptr
                                 : passed(m_real.CreateMappingOverFile(path, name, size, fault));
    }
    void* OpenMapping(const char* name, const char* spare) override
    {
        return fails(Create, 28) ? nullptr : passed(m_real.OpenMapping(name, spare));
    }
    void* MapView(void* mapping, std::uint64_t offset, std::uint64_t size) override
    {
        return fails(View, 12) ? nullptr : passed(m_real.MapView(mapping, offset, size));
    }
    bool Prefetch(void* bytes, std::uint64_t size, Access access) override
    {
        return !fails(Find, 22) && m_real.Prefetch(bytes, size, access);
    }
    bool UnmapView(void* view, std::uint64_t size) override
    {
        if (!fails(Unview, 12))
            return passed(m_real.UnmapView(view, size));
        m_left.emplace_back(view, size);
        return false;
    }
    bool CloseMapping(void* mapping) override
    {
        const bool failing = fails(Close, 12);
        return passed(m_real.CloseMapping(mapping)) && !failing;
    }
    Cause LastCause() override { return s_injected ? Cause::Other : m_real.LastCause(); }
    std::uint32_t LastLimits(char* text, std::size_t size) override
    {
        return s_injected ? *text = '\0' : m_real.LastLimits(text, size);
    }

private:
    /// Counts the call. @return whether it is to fail; LastError() tells `error` then.
    bool fails(Kind kind, unsigned long error)
    {
        const int distance = (m_kinds & kind) != 0 ? ++m_seen - m_first : -1;
        if (distance < 0 || distance >= m_count)
            return false;
        m_fired = true;
        s_injected = true;
        Platform::SetLastError(error);
        return true;
    }

    /// A real failure has the real cause.
    template <class Result>
    static Result passed(Result result)
    {
        s_injected = result ? s_injected : false;
        return result;
    }

    static inline thread_local bool s_injected = false; ///< the last failure

    const unsigned m_kinds;
    const int m_first;
    const int m_count;
    int m_seen = 0;
    bool m_fired = false;
    std::vector<std::pair<void*, std::uint64_t>> m_left; ///< views whose end failed
};

#endif
