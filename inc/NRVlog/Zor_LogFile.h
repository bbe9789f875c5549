#ifndef NRVLOG_ZOR_LOGFILE_H
#define NRVLOG_ZOR_LOGFILE_H

/// @file
/// The log.

#include "mempager_export.h"

#include <functional>

/// One line of the log, as a sink gets it. The texts are zero-terminated and live until the sink
/// returns.
struct Zor_LogRecord {
    const char* source;   ///< the source file, such as "src/Mem/Mem_MemPager"
    const char* function; ///< such as "MEM_MemPager::Allocate"
    int line;             ///< in the source file
    int level;            ///< 1 to 7, lower is graver
    int module;           ///< 561 for this library
    const char* text;     ///< the message, as a rule with a newline at its end
};

/// The log of the process. Use the object ZorGLog; it works before any constructor has run and
/// in the last destructors.
///
/// Levels run from 1 to 7, lower being graver: 2 where the process is about to fail for good, 3
/// failures and wrong use, 4 warnings, 5 shortages that can be mended, 6 routine, 7 detail. A
/// line is written if its level is at most the one configured for its module.
///
/// Threads: any, unless an operation says otherwise. Nothing here waits for another thread, but
/// setting a level for another thread that sets one.
class MEMPAGER_EXPORT Zor_LogFile
{
public:
    /// A sink takes records; an empty one stands for the default sink.
    using Sink = std::function<void(const Zor_LogRecord&)>;

    constexpr Zor_LogFile() noexcept = default;
    Zor_LogFile(const Zor_LogFile&) = delete;
    Zor_LogFile& operator=(const Zor_LogFile&) = delete;

    /// Asks for a line and keeps what it takes, beside the message, for this thread's next Log().
    /// The line's code is its module times 10000. The texts must live until then.
    /// @return not 0 if the line is to be written; 0 if not, and nothing was kept then.
    int StoreParams(const char* source, const char* function, int line, int level, int module,
                    int flag) noexcept;

    /// Writes the line that StoreParams() granted. The format is printf's, and %Iu is a 64-bit
    /// unsigned number. errno stays as it was, nothing is thrown.
    ///
    /// Messages of up to 1 KiB allocate nothing; a longer one is cut there if it can't get
    /// memory. A format of 1 KiB or more is written as it stands.
    void Log(const char* format, ...) noexcept;

    /// The level that is configured for a code, from 0 (nothing) to 255. Default 3.
    /// 5610000 is this library's lines; 5830000 at 7 turns a new pager's counters on.
    unsigned char GetLogLevel(int code) const noexcept;

    /// Sets the level of everything, also of the codes that had one of their own.
    void SetLogLevel(int level) noexcept;

    /// Sets the level of one code. Up to 16 codes can have their own; a further one is ignored.
    void SetLogLevel(int code, int level) noexcept;

    /// Sends the lines to `sink` from now on; empty brings back the default sink, which writes
    /// one line for each record to standard error, such as
    /// "mempager 3 MEM_MemPager::Allocate: no room".
    ///
    /// A sink is called from any thread, from several at a time and under this library's locks,
    /// so it must not call into the library. What it throws is dropped. A line that is logged
    /// inside a sink goes to the default sink. Threads that are in the old sink finish there; it
    /// is destroyed now, or by a later SetSink() if one of them still is. The last one set is
    /// never destroyed.
    ///
    /// @throws std::bad_alloc, and the old sink stays then.
    void SetSink(Sink sink);

    /// The folder for log files, without a slash at its end; "." until one is set. The text is
    /// the log's and stays good and unchanged for the rest of the process.
    static char* GetLogConfigDir() noexcept;

    /// Sets that folder; null or "" means the current one. One slash at the end is taken off.
    /// Each folder that was ever set is kept. Throws std::bad_alloc, and nothing has changed.
    static void SetLogConfigDir(const char* folder);
};

/// The log of the process.
extern MEMPAGER_EXPORT Zor_LogFile ZorGLog;

#endif
