#pragma once

#include <string>
#include <string_view>

#include "LogSink.h"

namespace kel {

/// Whether lines on the console get colours: not where NO_COLOR is set and not empty; else where
/// CLICOLOR_FORCE is set and neither empty nor "0", or where standard error is a terminal.
bool consoleWantsColors();

/// Writes lines to standard error, coloured as Poco::ColorConsoleChannel does with its defaults and
/// cyan for information and notice.
class ConsoleSink : public LogSink {
public:
    explicit ConsoleSink(bool colored) : _colored(colored) {}

    bool write(const LineBlock& block, Progress& progress) override;

    /// What appears on a console with colours.
    static std::string colored(const LineBlock& block);

private:
    void writeText(std::string_view text, Progress& progress);

    const bool _colored;
    PieceSize _piece{4096};  // a pipe that has room takes this much without a wait
};

}  // namespace kel
