#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "../platform/Platform.h"
#include "LogSink.h"

namespace kel {

/// Creates the directory that log files stand in, with all parents, for the owner only where the
/// system knows that.
/// @throws Poco::FileException  it cannot be created.
void createLogDirectory(const std::string& directory);

/// Appends lines to the log file. A write that fails closes the file; the next one opens it anew
/// and goes on with the first byte that is missing. Failures are logged, which tells the console.
class FileSink : public LogSink {
public:
    /// Writes to `path` from now on, opened anew. Where that fails, the failure is logged and the
    /// file in use stays in use; if there is none, each write tries again. Never throws.
    /// @return whether it could be opened.
    bool use(std::string path) noexcept;

    bool write(const LineBlock& block, Progress& progress) override;

    /// The next write opens the file again.
    void close() noexcept { _file.reset(); }

private:
    void open();
    bool openIfClosed() noexcept;
    bool writeRest(const LineBlock& block, Progress& progress);
    void fail(const std::string& reason);

    std::string _path;
    std::unique_ptr<platform::AppendedFile> _file;
    std::size_t _written = 0;  // bytes of the block in hand
    bool _failureTold = false;
    PieceSize _piece{65536};
};

}  // namespace kel
