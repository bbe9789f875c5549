#include "Platform/Windows/Views.h"

#include "Platform/Windows/Ending.h"
#include "Platform/Windows/System.h"

#include <cstdint>
#include <iterator>
#include <utility>

namespace
{

struct Note {
    const void* view;
    Note* next;
};

constinit SRWLOCK lock = SRWLOCK_INIT;
constinit Note* notes[4093] = {}; // by the view's address; a prime, since they come in rows
constinit unsigned long count = 0;

/// Holds the lock for a scope. What is held when the other threads have been ended stays held.
class Guard
{
public:
    Guard()
    {
        if (OtherThreadsHaveEnded())
            m_holds = TryAcquireSRWLockExclusive(&lock) != 0;
        else
            AcquireSRWLockExclusive(&lock);
    }
    ~Guard()
    {
        if (m_holds)
            ReleaseSRWLockExclusive(&lock);
    }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

    explicit operator bool() const { return m_holds; }

private:
    bool m_holds = true;
};

/// The place that leads to the view's note, or would.
Note** place_of(const void* view)
{
    const auto number = reinterpret_cast<std::uintptr_t>(view) >> 16;
    Note** place = &notes[number % std::size(notes)];
    while (*place != nullptr && (*place)->view != view)
        place = &(*place)->next;
    return place;
}

} // namespace

/// Allocates from the system's heap and not by malloc: if malloc fails, the cache is given up,
/// which isn't worth a note.
void NoteView(const void* view)
{
    auto* const note = static_cast<Note*>(HeapAlloc(GetProcessHeap(), 0, sizeof(Note)));
    if (note == nullptr)
        return;
    const Guard guard;
    if (!guard)
        return; // nobody will ask any more
    *note = {view, nullptr};
    *place_of(view) = note;
    ++count;
}

void ForgetView(const void* view)
{
    Note* note = nullptr;
    if (const Guard guard; guard) {
        Note** const place = place_of(view);
        note = *place;
        if (note == nullptr)
            return;
        *place = note->next;
        --count;
    }
    if (note != nullptr)
        HeapFree(GetProcessHeap(), 0, note);
}

bool IsNotedView(const void* view)
{
    const Guard guard;
    return guard && *place_of(view) != nullptr;
}

unsigned long CountNotedViews()
{
    const Guard guard;
    return count;
}
