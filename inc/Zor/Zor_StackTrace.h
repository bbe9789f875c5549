#ifndef ZOR_ZOR_STACKTRACE_H
#define ZOR_ZOR_STACKTRACE_H

#include "mempager_export.h"

#include <cstdio>

class RWCString;

/// Where the program is. Threads: any. Never throws and allocates nothing.
class MEMPAGER_EXPORT Zor_StackTrace
{
public:
    /// Writes the calls that led here to standard error. The arguments are kept for callers that
    /// pass them on.
    static void TraceStack(std::FILE* file, RWCString* text, int depth, int skip) noexcept;
};

#endif
