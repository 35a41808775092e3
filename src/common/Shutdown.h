#pragma once

#include "Export.h"

namespace kel {

/// Stops every thread the library owns: MQTT reconnections, the MQTT and the default thread pool,
/// the logging threads, in this order. Work that has begun is finished; a task that does not end
/// within POCO's 10 s join time-out is left behind. Nothing may be started afterwards.
///
/// On Linux this happens by itself when the process ends. On Windows a static destructor must not
/// join a thread (the loader lock is held), so a host that unloads the library, or wants its last
/// log lines written, calls it after it has released its clients, web API and web hook.
/// Repeatable; never throws. Threads: any but the library's own.
KEL_API void stopLibrary() noexcept;

}  // namespace kel
