#ifndef PLATFORM_LIMITTABLE_H
#define PLATFORM_LIMITTABLE_H

#include "Platform/Inspection.h"
#include "Platform/Subject.h"

/// What the facts of one look are told of, in the system's own form.
struct LookedAt;

/// All that the system has to say of a subject.
struct LimitRow {
    Platform::Subject subject;

    /// printf's form of how an operation that met the limit tells it: how much it is, and how much
    /// of that was left, in units of 1 << `unit` bytes. It need not show both. Null for what no
    /// operation meets.
    const char* met;
    int unit;

    /// What it is called when it is looked at, and who looks; null if nobody does.
    const char* name;
    void (*look)(const LookedAt& folders, Platform::Inspection::Fact& fact);
};

/// A row for each subject, in their order, whether the system has it or not.
extern const LimitRow LimitTable[Platform::SubjectCount];

constexpr bool IsInOrder(const LimitRow (&table)[Platform::SubjectCount])
{
    int number = 0;
    for (const LimitRow& row : table)
        if (static_cast<int>(row.subject) != number++)
            return false;
    return true;
}

/// The facts of all rows that somebody looks at and has something to tell. Throws std::bad_alloc.
std::vector<Platform::Inspection::Fact> LookAtAll(const LookedAt& folders);

#endif
