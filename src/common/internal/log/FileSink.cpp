#include "FileSink.h"

#include <Poco/Exception.h>
#include <Poco/Path.h>

#include <string_view>
#include <system_error>
#include <utility>

#include "UnitLog.h"

namespace kel {

namespace {

constexpr UnitLog log("src/common/Logger");

// The beginning of the line that holds the byte at `position` of the block.
std::size_t lineStart(const LineBlock& block, std::size_t position) {
    std::size_t start = 0;
    for (const auto& line : block.lines) {
        if (line.end > position) break;
        start = line.end;
    }
    return start;
}

}  // namespace

void createLogDirectory(const std::string& directory) {
    try {
        platform::createPrivateDirectory(Poco::Path::forDirectory(directory).toString());
    } catch (const std::system_error& exc) {
        throw Poco::CreateFileException(exc.what());
    }
}

bool FileSink::use(std::string path) noexcept {
    _path = std::move(path);
    try {
        open();
        return true;
    } catch (const std::exception& exc) {
        logExceptions(log, [&] { log.error("Cannot open the log file: " + exceptionText(exc)); });
        return false;
    }
}

// The old file is closed only once the new one is open.
void FileSink::open() {
    createLogDirectory(Poco::Path(_path).parent().toString());
    _file = std::make_unique<platform::AppendedFile>(_path);
}

bool FileSink::openIfClosed() noexcept {
    try {
        if (!_file) open();
        return true;
    } catch (const std::exception&) {
        return false;  // the set-up has logged the reason
    }
}

bool FileSink::write(const LineBlock& block, Progress& progress) {
    if (!openIfClosed()) return false;
    // Where a failure has cut a line in two, a file without the first half gets the whole line.
    if (_file->empty()) _written = lineStart(block, _written);
    if (!writeRest(block, progress)) return false;
    _written = 0;
    _failureTold = false;
    return true;
}

bool FileSink::writeRest(const LineBlock& block, Progress& progress) {
    const std::string_view text(block.text);
    while (_written < text.size()) {
        const auto begin = Progress::Clock::now();
        std::error_code failed;
        _written += _file->write(_piece.next(text.substr(_written)), failed);
        if (failed) {
            fail(failed.message());
            return false;
        }
        _piece.took(Progress::Clock::now() - begin);
        progress.made();
    }
    return true;
}

void FileSink::fail(const std::string& reason) {
    close();
    if (!_failureTold) log.error("Cannot write to the log file: " + reason);
    _failureTold = true;
}

}  // namespace kel
