#ifndef PLATFORM_WINDOWS_ENDING_H
#define PLATFORM_WINDOWS_ENDING_H

/// Whether the process is ending and all its threads but this one are gone. The system ends them
/// wherever they are, before it calls what a DLL has to do at the end.
bool OtherThreadsHaveEnded();

#endif
