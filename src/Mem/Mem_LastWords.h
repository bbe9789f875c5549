#ifndef MEM_LASTWORDS_H
#define MEM_LASTWORDS_H

// What all reports of a process without memory have in common. Nothing here allocates or throws.

/// Logs at level 2, in the name of `source` and `function`, what the process takes of its address
/// space, and appends the details to the file `dump`, unless that is null.
/// @return false, after a line that says so, if the numbers can't be found out.
bool ReportAddressSpace(const char* source, const char* function, const char* dump);

/// Writes the calls that led here to standard error, if the log's level asks for it.
void TraceCallsIfWanted();

#endif
