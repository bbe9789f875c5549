#ifndef PLATFORM_POSIX_LIMITTABLE_H
#define PLATFORM_POSIX_LIMITTABLE_H

#include "Platform/Posix/LimitFacts.h"
#include "Platform/Subject.h"

/// All that this system has to say of a subject. A new limit is one row more.
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

/// A row for each subject, in their order.
extern const LimitRow LimitTable[Platform::SubjectCount];

#endif
