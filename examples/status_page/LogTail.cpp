#include "LogTail.h"

#include <Poco/Exception.h>
#include <Poco/FileStream.h>
#include <Poco/Path.h>
#include <Poco/StringTokenizer.h>
#include <common/Logger.h>
#include <common/Utils.h>

#include <algorithm>
#include <iterator>
#include <list>
#include <string>

namespace status_page {

namespace {

constexpr std::streamoff kTailBytes = std::streamoff{64} << 10;

// Log files are called "<executable>-<date>.log", so the last by name is the newest.
std::string newestLog() {
    const std::string logger = kel::logName();
    const std::string stem = logger.substr(0, logger.rfind("_logger")) + "-";
    const Poco::Path folder =
        Poco::Path::forDirectory(Poco::Path::dataHome()).pushDirectory("kelhost");
    std::list<std::string> files;
    kel::listFilesRecursively(folder, files, kel::ListFileType::LogFile, stem);
    return files.empty() ? "" : *std::max_element(files.begin(), files.end());
}

// The file's end, from the beginning of a line on.
std::string tailOf(const std::string& path) {
    Poco::FileInputStream file(path, std::ios::in | std::ios::binary);
    file.seekg(0, std::ios::end);
    const std::streamoff start = std::max<std::streamoff>(0, file.tellg() - kTailBytes);
    file.seekg(start);
    std::string partial;
    if (start > 0) std::getline(file, partial);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

}  // namespace

std::vector<std::string> logTail(std::size_t count) {
    try {
        const std::string file = newestLog();
        if (file.empty()) return {};
        const Poco::StringTokenizer lines(tailOf(file), "\r\n",
                                          Poco::StringTokenizer::TOK_IGNORE_EMPTY);
        const auto shown = static_cast<std::ptrdiff_t>(std::min(count, lines.count()));
        return {lines.end() - shown, lines.end()};
    } catch (const Poco::Exception&) {
        return {};  // without a folder or a log there is nothing to show
    }
}

}  // namespace status_page
