#pragma once

#include "Export.h"

namespace kel {

/// From this call on a request to end the process no longer ends it, but is kept for
/// waitForTerminationRequest(): the signals SIGINT, SIGTERM and SIGQUIT; on Windows Ctrl-C,
/// Ctrl-Break, Poco::Process::requestTermination() of another process, and the closing of the
/// console, logging off and shutting down, for which the system grants the process about 5 s. Call
/// it first in main(), so that a request that comes while the host starts leads to an orderly end
/// as well. Programs that the host starts are not affected. On Windows a service is not concerned
/// when users log off, gets the service manager's requests here too if it is a
/// Poco::Util::ServerApplication, and the library stays loaded from this call on.
/// Repeatable. @throws std::system_error  the system refuses. Threads: any.
KEL_API void catchTerminationRequests();

/// Waits, without a time limit, until the process is asked to end; returns at once if it was asked
/// after catchTerminationRequests(), which is called where the host has not done so. One request
/// ends one wait. @throws std::system_error  as catchTerminationRequests(). Threads: any.
/// @code
///   int main() {
///       kel::catchTerminationRequests();
///       ...  // start the services
///       kel::waitForTerminationRequest();
///       ...  // stop them, then kel::stopLibrary() and kel::deleteLogger()
///   }
/// @endcode
KEL_API void waitForTerminationRequest();

}  // namespace kel
