#pragma once

namespace kel {

/// Order in which the library's threads are stopped: what starts work on others comes first.
enum class StopStage { kMessaging, kRequests, kTaskPools, kLogging };

/// Has `stop` run once by the next stopLibrary(), which the end of the process calls where it may
/// join threads. A unit registers whenever it starts its threads, so again after each stop;
/// registering twice counts once. What `stop` touches must never be destroyed, since it may run
/// among static destructors. Threads: any.
void onLibraryStop(StopStage stage, void (*stop)());

/// Whether the end of the process has begun. A unit starts no thread any more then; after a mere
/// stopLibrary() the next use starts its threads anew. Threads: any.
bool processIsEnding() noexcept;

}  // namespace kel
