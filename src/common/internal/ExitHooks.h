#pragma once

namespace kel {

/// Order in which the library's threads are stopped: what starts work on others goes first.
enum class ExitStage { kMessaging, kRequests, kTaskPools, kLogging };

/// Has `stop` run once by stopLibrary(), which the end of the process calls where joins are
/// allowed. A unit registers when it first starts a thread, and keeps what its hook touches alive
/// (never destroyed), since hooks run among static destructors. Threads: any.
void onLibraryStop(ExitStage stage, void (*stop)());

}  // namespace kel
