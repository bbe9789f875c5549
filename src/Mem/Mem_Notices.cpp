#include "Mem/Mem_Notices.h"

#include "Mem/Mem_MemPager.h"
#include "Mem/Mem_Repeats.h"
#include "Platform/PerThread.h"
#include "Platform/Process.h"

#include <cstddef>
#include <utility>

namespace
{

using Kind = Mem_Notice::Kind;
constexpr std::size_t kinds = 2;

struct Registered {
    Mem_NoticeHook hook = nullptr;
    void* context = nullptr;
};
constinit Registered registered;

/// What of each kind no thread has been given to tell.
struct Untold {
    Mem_Repeats repeats;
    unsigned long long bytes = 0;
};
constinit Untold untold[kinds];

/// What this thread is to tell, by kind: those that count something.
struct Waits {
    Mem_Notice notices[kinds];
    bool is_telling = false;

    bool IsEmpty() const { return notices[0].count == 0 && notices[1].count == 0; }
};
PLATFORM_PER_THREAD PerThread<Waits> waits{{}};

/// As the log, each kind is told once a second.
void meet(Kind kind, unsigned long long bytes) noexcept
{
    const auto at = static_cast<std::size_t>(kind);
    untold[at].bytes += bytes;
    if (!untold[at].repeats.IsNews(0))
        return;
    if (waits->IsEmpty())
        ++Mem_Notices::Waiting;
    Mem_Notice& notice = waits->notices[at];
    notice.kind = kind;
    notice.count += untold[at].repeats.TakeCount() + 1;
    notice.bytes += std::exchange(untold[at].bytes, 0);
}

/// @return one that counts nothing if there is none.
Mem_Notice take_one() noexcept
{
    const std::size_t at = waits->notices[0].count != 0 ? 0 : 1;
    const Mem_Notice notice = std::exchange(waits->notices[at], {});
    if (notice.count != 0 && waits->IsEmpty())
        --Mem_Notices::Waiting;
    return notice;
}

void call(const Registered& to, const Mem_Notice& notice) noexcept
{
    struct Call {
        const Registered& to;
        const Mem_Notice& notice;
    } now{to, notice};
    Platform::Process::Get().CallUncancelled(
        [](void* argument) {
            const auto& [receiver, told] = *static_cast<Call*>(argument);
            receiver.hook(told, receiver.context);
        },
        &now);
}

} // namespace

constinit std::atomic<unsigned> Mem_Notices::Waiting = 0;

void Mem_Notices::SetHook(Mem_NoticeHook hook, void* context) noexcept
{
    registered = {hook, context};
    for (Untold& each : untold)
        each = {};
}

void Mem_Notices::Spilled(unsigned long long bytes) noexcept
{
    if (registered.hook != nullptr)
        meet(Kind::Spilling, bytes);
}

void Mem_EvictionRate::Evicted(unsigned long long bytes, unsigned long long limit) noexcept
{
    if (registered.hook == nullptr)
        return;
    const auto now = std::chrono::steady_clock::now();
    if (now - m_begin > std::chrono::seconds(1)) {
        m_begin = now;
        m_bytes = 0;
    }
    m_bytes += bytes;
    if (m_bytes > limit)
        meet(Kind::EvictionStorm, std::exchange(m_bytes, 0));
}

/// A thread that holds a lock goes on to where it gives up its last one.
void Mem_NoticesAtEnd::tell() noexcept
{
    if (waits->IsEmpty() || waits->is_telling || MEM_MemPager::mutex_vec.HeldByThisThread() ||
        MEM_MemPager::mutex.HeldByThisThread())
        return;
    waits->is_telling = true;
    for (Mem_Notice notice = take_one(); notice.count != 0; notice = take_one()) {
        MEM_MemPager::mutex.CatchMutex();
        const Registered to = registered;
        MEM_MemPager::mutex.ReleaseMutex();
        if (to.hook != nullptr)
            call(to, notice);
    }
    waits->is_telling = false;
}

void MEM_MemPager::SetNoticeHook(Mem_NoticeHook hook, void* context)
{
    WindowUnixGuard lock(&mutex);
    Mem_Notices::SetHook(hook, context);
}
