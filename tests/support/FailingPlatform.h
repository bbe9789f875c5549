#ifndef SUPPORT_FAILINGPLATFORM_H
#define SUPPORT_FAILINGPLATFORM_H

#include "Platform/Inspection.h"
#include "Platform/LastError.h"
#include "Platform/Mappings.h"
#include "Platform/Process.h"

#include <cerrno>
#include <new>
#include <utility>
#include <vector>

/// The platform's calls that can fail, by what they do.
struct PlatformCalls {
    enum Kind : unsigned {
        Create = 1,
        View = 2,
        Unview = 4,
        Close = 8,
        Trim = 16,
        Remove = 32,   ///< files, names and links
        List = 64,     ///< folders, which then can't be read, and maps
        Ask = 128,     ///< for facts on files and folders
        Write = 256,   ///< files of words, and their lengths
        OnForks = 512, ///< what is to run then
        Find = 1024    ///< pages, ahead of their touch
    };
};

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

    /// Asked before each call that can fail. @return whether it is to.
    virtual bool fails(PlatformCalls::Kind) { return false; }

    Interface& m_real;
};

#define FORWARD(result, name, parameters, arguments)                                               \
    result name parameters override                                                                \
    {                                                                                              \
        return m_real.name arguments;                                                              \
    }
#define FORWARD_OR(failure, kind, result, name, parameters, arguments)                             \
    result name parameters override                                                                \
    {                                                                                              \
        return fails(PlatformCalls::kind) ? failure : m_real.name arguments;                       \
    }

class ForwardingMappings : public InFront<Platform::Mappings>
{
public:
    FORWARD_OR(nullptr, Create, void*, CreateSharedMapping,
               (const char* n, std::uint64_t s, const char* f, bool* p), (n, s, f, p))
    FORWARD_OR((*f = FileFault::Mapping, nullptr), Create, void*, CreateMappingOverFile,
               (const char* p, const char* n, std::uint64_t s, FileFault* f), (p, n, s, f))
    FORWARD_OR(nullptr, Create, void*, OpenMapping, (const char* n, const char* f), (n, f))
    FORWARD_OR((m_real.CloseMapping(m), false), Close, bool, CloseMapping, (void* m), (m))
    FORWARD_OR(nullptr, View, void*, MapView, (void* m, std::uint64_t o, std::uint64_t s),
               (m, o, s))
    FORWARD(bool, UnmapView, (void* v, std::uint64_t s), (v, s))
    FORWARD_OR(false, Find, bool, Prefetch, (void* b, std::uint64_t s, Access a), (b, s, a))
    FORWARD(std::uint32_t, AllocationGranularity, (), ())
    FORWARD_OR(false, Trim, bool, TrimWorkingSet, (Views & v), (v))
    FORWARD(std::uint64_t, HugeBytes, (const ViewSet& v), (v))
    FORWARD(void, PreferHugePages, (void* m, std::uint64_t s), (m, s))
    FORWARD(Cause, LastCause, (), ())
    FORWARD(LimitsMet, LastLimits, (char* t, std::size_t s), (t, s))
    FORWARD_OR(false, Remove, bool, RemoveFile, (const char* p), (p))
    FORWARD_OR(void(a.ended = true), List, void, ListNames,
               (const char* f, const char* p, Place& a, Names& n), (f, p, a, n))
    FORWARD(Creator, CreatorOf, (const char* p, long i), (p, i))
    FORWARD_OR(false, Remove, bool, RemoveDeadFile, (const char* p), (p))
    FORWARD_OR(false, Remove, bool, RemoveDeadMapping, (const char* f, const char* n), (f, n))
};

class ForwardingInspection : public InFront<Platform::Inspection>
{
public:
    FORWARD(char, PathSeparator, (), ())
    FORWARD_OR(false, Ask, bool, AbsolutePath, (const char* p, char* t, std::size_t s), (p, t, s))
    FORWARD(const char*, DefaultTempFolder, (), ())
    FORWARD(const char*, MappingFolder, (), ())
    FORWARD_OR(false, Ask, bool, FreeSpace, (const char* f, double* b), (f, b))
    FORWARD_OR(void(), List, void, ListFiles,
               (const char* f, const char* p, Platform::Mappings::Names& n), (f, p, n))
    FORWARD_OR(false, Ask, bool, Inspect, (const char* p, FileFacts& f), (p, f))
    FORWARD(void, ProgramOf, (const char* p, long i, char* t, std::size_t s), (p, i, t, s))
    FORWARD_OR(false, Remove, bool, RemoveLostLink, (const char* p), (p))
    FORWARD_OR(false, Ask, bool, ResidentBytes, (Platform::Mappings::Views & v, std::uint64_t& b),
               (v, b))
    FORWARD_OR(throw std::bad_alloc(), Ask, std::vector<Fact>, Look, (const char* f), (f))
};

class ForwardingProcess : public InFront<Platform::Process>
{
public:
    FORWARD(long, ProcessId, (), ())
    FORWARD(long, ThreadId, (), ())
    FORWARD(std::uint64_t, RandomNumber, (), ())
    FORWARD(void, CallUncancelled, (void (*c)(void*), void* a), (c, a))
    FORWARD_OR(false, OnForks, bool, OnFork, (void (*b)(), void (*p)(), void (*c)()), (b, p, c))
    FORWARD(bool, OthersHaveEnded, (), ())
    FORWARD(std::uint64_t, MemoryLimit, (), ())
    FORWARD(Memory, MemoryNow, (), ())
    FORWARD_OR(false, List, bool, ListMaps, (Maps & m), (m))
    FORWARD(void, OnAllocationFailure, (AllocationHandler h), (h))
    FORWARD(void, SystemName, (char* t, std::size_t s), (t, s))
    FORWARD(void, ProcessName, (char* t, std::size_t s), (t, s))
    FORWARD(void, TimeAndDate, (char* t, std::size_t s), (t, s))
    FORWARD(void, ErrorText, (unsigned long e, char* t, std::size_t s), (e, t, s))
    FORWARD_OR(false, Write, bool, TruncateLongFile, (const char* p, std::uint64_t m), (p, m))
    FORWARD_OR(false, Write, bool, AppendToFile, (const char* p, const char* t, std::size_t s),
               (p, t, s))
    FORWARD(void, StackTrace, (), ())
    FORWARD(void, WriteStandardError, (const char* t, std::size_t s), (t, s))
};
#undef FORWARD
#undef FORWARD_OR

/// Stands in front of the platform for as long as it lives and lets chosen calls fail, of all that
/// can.
///
/// A failing call does nothing and gives what says so, but a failing Close is really done. A
/// failing Unview leaves the view, which then ends with this object: views that must outlive it
/// can't be tested so. Threads: one at a time.
class FailingPlatform final : public PlatformCalls,
                              ForwardingMappings,
                              ForwardingInspection,
                              ForwardingProcess
{
public:
    /// What LastError() tells of a failing Create, and of all others.
    static constexpr unsigned long full_error = ENOSPC, other_error = ENOMEM;

    /// The `n`-th call (from 1) of the `kinds`, counted together, fails, and the `count` - 1
    /// calls after it.
    FailingPlatform(unsigned kinds, int n, int count = 1)
        : m_kinds(kinds), m_first(n), m_count(count)
    {
        m_left.reserve(1024); // releasing calls are not to allocate, here either
    }
    ~FailingPlatform()
    {
        for (const auto& [view, size] : m_left)
            ForwardingMappings::m_real.UnmapView(view, size);
    }

    /// Whether a call has failed by this object.
    bool Fired() const { return m_fired; }

private:
    bool UnmapView(void* view, std::uint64_t size) override
    {
        if (!fails(Unview))
            return ForwardingMappings::UnmapView(view, size);
        m_left.emplace_back(view, size);
        return false;
    }
    Cause LastCause() override
    {
        return failed_last() ? Cause::Other : ForwardingMappings::LastCause();
    }
    LimitsMet LastLimits(char* text, std::size_t size) override
    {
        if (!failed_last())
            return ForwardingMappings::LastLimits(text, size);
        *text = '\0';
        return {};
    }
    bool fails(Kind kind) override
    {
        const int distance = (m_kinds & kind) != 0 ? ++m_seen - m_first : -1;
        if (distance < 0 || distance >= m_count)
            return false;
        m_fired = true;
        m_error = kind == Create ? full_error : other_error;
        Platform::SetLastError(m_error);
        return true;
    }
    /// Whether the last failure was none of the real platform's.
    bool failed_last() const { return m_fired && Platform::LastError() == m_error; }

    const unsigned m_kinds;
    const int m_first;
    const int m_count;
    int m_seen = 0;
    bool m_fired = false;
    unsigned long m_error = 0;
    std::vector<std::pair<void*, std::uint64_t>> m_left; ///< views whose end failed
};

#endif
