#include "LogTail.h"

#include <Poco/Exception.h>
#include <Poco/Path.h>
#include <Poco/StringTokenizer.h>
#include <common/Logger.h>
#include <common/Utils.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <list>
#include <string>

#include "Text.h"

namespace {

constexpr std::streamoff kTailBytes = 64 * 1024;
constexpr std::size_t kLineLimit = 1000;

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
    std::ifstream file(path, std::ios::binary | std::ios::ate);
    const std::streamoff size = file.tellg();
    if (!file) return "";
    const std::streamoff start = std::max<std::streamoff>(0, size - kTailBytes);
    file.seekg(start);
    std::string partial;
    if (start > 0) std::getline(file, partial);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

}  // namespace

Poco::JSON::Array::Ptr logTail(std::size_t count) {
    Poco::JSON::Array::Ptr list(new Poco::JSON::Array);
    try {
        const Poco::StringTokenizer lines(tailOf(newestLog()), "\n",
                                          Poco::StringTokenizer::TOK_IGNORE_EMPTY);
        for (std::size_t i = lines.count() - std::min(count, lines.count()); i < lines.count(); ++i)
            list->add(shown(lines[i], kLineLimit));
    } catch (const Poco::Exception&) {
        // No folder, no log: there is nothing to show.
    }
    return list;
}
