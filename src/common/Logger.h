#pragma once

#include <Poco/Message.h>

#include <string>

#include "Export.h"

namespace kel {

/// Sets the process's logging up: every line is written to the console and to
/// `<data home>/kelhost/<executable>-<yyyy-mm-dd>.log`, and a refresh thread moves on to a new
/// day's file within a minute of midnight. The host calls it first; calling it again opens the file
/// anew at once and loses no line. On POSIX the file and its directory are created for the owner
/// only.
///
/// A line costs its caller one copy: it waits in a queue for two threads, which write the file and
/// the console. Bounds: 64 MiB of lines in the queue, and 64 MiB formatted for each output. Beyond
/// that callers wait and lose nothing, with two exceptions.
///
/// A console that has taken nothing for two seconds loses what exceeds its 64 MiB. Once it takes
/// lines again, one line says how many it lost; the file has them all.
///
/// A file that refuses lines, because the disk is full for instance, is tried again every second.
/// It loses what exceeds its 64 MiB; once it can be written again, one line says how many.
///
/// A log file that cannot be opened is reported on the console and tried again, at least at each
/// set-up. Where memory is short, lines wait until there is some.
///
/// Console lines go to standard error. They have colours where that is a terminal; NO_COLOR in the
/// environment turns them off, CLICOLOR_FORCE=1 turns them on. KEL_QUIET=1 suppresses the two lines
/// "LoggerImpl instance created" and "... destroyed" on standard output.
///
/// A forked child writes each line at once, on the thread that logs it; there loadLogging() and
/// deleteLogger() do nothing. It uses loggers that were looked up before the fork: where another
/// thread of the parent was looking one up at that moment, POCO's look-up waits for ever in the
/// child.
/// @throws Poco::Exception  the log directory cannot be created. What was logged to before stays in
///         use, the console at least; each later set-up tries again.
/// @throws std::system_error  the system starts no thread; a later call tries again.
/// After stopLibrary() it starts everything anew; after deleteLogger() it does nothing. Threads:
/// any.
KEL_API void loadLogging();

/// Name of the process's POCO logger: the executable's base name in lower case and "_logger".
/// Hosts log with `Poco::Logger::get(kel::logName()).information(text, __FILE__, __LINE__)`, from
/// any thread; the file name must be a string literal, since POCO keeps the pointer.
/// @return "" before the first loadLogging(); the last name after deleteLogger().
/// Threads: any; never waits.
KEL_API std::string logName();

/// Logs one line as `Poco::Logger::get(kel::logName())` does, for half of what that costs its
/// caller: POCO makes a message for each line, for which it asks the system for the process's id.
///     kel::logLine(Poco::Message::PRIO_WARNING, "the text");
/// @param text  written as it is, line ends included.
/// @param file  a string literal; the call's own file and line unless given.
/// Never throws; a line for which there is no memory is lost. Threads: any; waits as any line does.
KEL_API void logLine(Poco::Message::Priority priority, const std::string& text,
                     const char* file = __builtin_FILE(), int line = __builtin_LINE()) noexcept;

/// Ends the refresh thread and the two writer threads. The host calls it last. It waits for as long
/// as lines are being written; an output that takes nothing for two seconds is given up. Lines
/// logged afterwards are still written, on the thread that logs them. A second call does nothing.
/// Threads: any but one that holds a lock a logging thread needs.
KEL_API void deleteLogger();

}  // namespace kel
