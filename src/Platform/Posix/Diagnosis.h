#ifndef PLATFORM_POSIX_DIAGNOSIS_H
#define PLATFORM_POSIX_DIAGNOSIS_H

#include <cstddef>
#include <cstdint>

// What a process without memory can still find out about itself, and leave in a file. Nothing here
// allocates, unless it says so.

/// Writes the system's name and version.
void WriteSystemName(char* text, std::size_t size);

/// Writes the name of this process's program.
void WriteProcessName(char* text, std::size_t size);

/// Writes the local time and date as asctime() does, with its line end. Allocates at the first
/// time, and when the time zone was changed.
void WriteTimeAndDate(char* text, std::size_t size);

/// To be called before a fork, and in the child, which then goes by what was so before: the time
/// zone can't be looked up there if the parent had several threads.
void RememberTimeZone();
void KeepTimeZone();

/// Makes the first stack trace, and the first look at the time, possible without memory. Allocates.
void PrepareLastWords();

/// Writes the calls that led here to standard error, one a line.
void WriteStackTrace();

/// Writes a text to whatever the descriptor is of. No signal comes of it. @return false with errno.
bool WriteAll(int file, const char* text, std::size_t size);

// The files are plain ones; a link isn't followed.

/// Bytes of a file; -1 if it can't be opened.
long long LengthOfFile(const char* path);

/// Cuts a file to nothing. @return false with errno.
bool EmptyFile(const char* path);

/// Adds a text to the end of a file, which is made if it must be. @return false with errno, and
/// with a part of the text in the file if the disk is full.
bool AddToFile(const char* path, const char* text, std::size_t size);

#endif
