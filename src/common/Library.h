#pragma once

#include "Export.h"

namespace kel {

/// Stops every thread the library owns, in this order: MQTT reconnections and messages; HTTP
/// requests, servers and hook timers; the default thread pool; the logging threads. Work that has
/// begun is finished; what does not end within some 10 s for each of these is left behind, logged.
/// Afterwards the next use of a unit starts its threads anew, except while the process ends.
///
/// On Linux this happens by itself when the process ends. On Windows a static destructor must not
/// join a thread (the loader lock is held), so a host that unloads the library, or wants its last
/// log lines written, calls it after it has released its clients, web API and web hook.
/// Repeatable; a second call at the same time waits for the first. Never throws.
/// Threads: any but the library's own.
KEL_API void stopLibrary() noexcept;

}  // namespace kel
