#pragma once

#include <string>

#include "Export.h"

namespace kel {

/// Sets the process's logging up: every line goes to the coloured console and to
/// `<data home>/kelhost/<executable>-<yyyy-mm-dd>.log`, and a refresh thread moves on to a new
/// day's file within a minute of midnight. The host calls it first; calling it again renews the
/// console and the file at once and loses no line.
/// @throws Poco::Exception  the log directory cannot be created or the file not opened. What was
///         logged to before stays in use.
/// After deleteLogger() it does nothing. Threads: any.
KEL_API void loadLogging();

/// Name of the process's POCO logger: the executable's base name in lower case and "_logger".
/// Hosts log with `Poco::Logger::get(kel::logName()).information(text, __FILE__, __LINE__)`, from
/// any thread; the file name must be a string literal, since POCO keeps the pointer.
/// @return "" before the first loadLogging(); the last name after deleteLogger().
/// Threads: any; never waits for a set-up in progress.
KEL_API std::string logName();

/// Ends the refresh thread and the two writer threads. The host calls it last. Lines logged
/// afterwards are still written, on the thread that logs them. A second call does nothing.
/// Threads: any but one that holds a lock a logging thread needs.
KEL_API void deleteLogger();

}  // namespace kel
