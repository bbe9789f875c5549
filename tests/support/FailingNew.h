#ifndef TESTS_FAILINGNEW_H
#define TESTS_FAILINGNEW_H

#include <cstdint>

/// While it lives, lets operator new fail on the thread that made it, in all its forms: the n-th
/// attempt from now on (the first is 1) and the count - 1 after it. As operator new has to, a
/// failed attempt runs the new-handler and tries again, which is an attempt of its own, and throws
/// std::bad_alloc if there is no handler. What the handler allocates counts too.
///
/// Guards nest: the outer one neither counts nor fails while an inner one lives. Nothing that
/// reports a test's result should be called under one.
///
/// Needs FailingNew.cpp in the program, which replaces operator new and delete.
class FailingNew
{
public:
    explicit FailingNew(std::uint64_t n, std::uint64_t count = 1);
    ~FailingNew();
    FailingNew(const FailingNew&) = delete;
    FailingNew& operator=(const FailingNew&) = delete;

    /// Whether an attempt was failed.
    bool Fired() const { return m_fired; }

    /// For operator new: counts an attempt of this thread and tells whether it has to fail.
    static bool FailsNow();

private:
    const std::uint64_t m_first;
    const std::uint64_t m_count;
    std::uint64_t m_attempts = 0;
    bool m_fired = false;
    FailingNew* const m_outer;
};

/// The attempts of operator new that this thread has made since it began.
std::uint64_t AllocationsOfThisThread();

#endif
