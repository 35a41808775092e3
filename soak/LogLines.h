#pragma once

#include <Poco/Logger.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "Soak.h"
#include "common/Logger.h"

namespace soak {

/// Lines that writers, each from one thread, number and log; the files must have those of each
/// writer whole, once and in order.
class LogLines {
public:
    explicit LogLines(std::size_t writers) : _logged(writers, 0) {}

    void log(std::size_t writer, long count) {
        Poco::Logger& logger = Poco::Logger::get(kel::logName());
        const std::string begin = "line " + std::to_string(writer) + " ";
        for (const long end = _logged[writer] + count; _logged[writer] < end; ++_logged[writer])
            logger.information(begin + std::to_string(_logged[writer]), __FILE__, __LINE__);
    }

    bool allFound() {
        std::vector<long> found(_logged.size(), 0);
        for (const auto& file : std::filesystem::directory_iterator(homeFolder()))
            count(std::ifstream(file.path()), found);
        for (std::size_t i = 0; i < found.size(); ++i) _missing += _logged[i] - found[i];
        return _missing == 0 && _wrong == 0;
    }

    std::string missing() const {
        return std::to_string(_missing) + " lines lost, " + std::to_string(_wrong) +
               " out of order";
    }

private:
    void count(std::ifstream in, std::vector<long>& found) {
        for (std::string line; std::getline(in, line);) {
            const std::size_t at = line.rfind(":line ");
            if (at == line.npos) continue;
            std::istringstream numbers(line.substr(at + 6));
            std::size_t writer = 0;
            long number = -1;
            numbers >> writer >> number;
            if (found.at(writer)++ != number) ++_wrong;
        }
    }

    std::vector<long> _logged;  // each element is its writer's
    long _missing = 0, _wrong = 0;
};

}  // namespace soak
