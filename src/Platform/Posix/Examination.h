#ifndef PLATFORM_POSIX_EXAMINATION_H
#define PLATFORM_POSIX_EXAMINATION_H

#include "Platform/Platform.h"

/// Holds the machine and this process's limits against `demand`. Changes nothing. Throws what
/// `findings` throws, and std::bad_alloc.
void ExamineMachine(const Platform::Demand& demand, Platform::Findings& findings);

#endif
