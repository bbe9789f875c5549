#ifndef PLATFORM_LASTERROR_H
#define PLATFORM_LASTERROR_H

namespace Platform
{

/// The system's number for the cause of this thread's last failing operation of the platform; 0 if
/// none has failed. Process::ErrorText() has the text.
unsigned long LastError();

/// Makes it this number, as a failing operation does. For tests that let one fail.
void SetLastError(unsigned long error);

} // namespace Platform

#endif
