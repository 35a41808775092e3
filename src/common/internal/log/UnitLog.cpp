#include "UnitLog.h"

#include <Poco/Exception.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>

#include <atomic>

#include "../../Logger.h"

namespace kel {

namespace {

std::atomic<bool> ended{false};

void write(const char* file, int line, Poco::Message::Priority priority,
           const std::string& text) noexcept {
    if (ended) return;
    try {
        Poco::Logger& logger = Poco::Logger::get(logName());
        if (logger.getLevel() < priority) return;
        logger.log(Poco::Message(logger.name(), text, priority, file, line));
    } catch (...) {
        // There is nobody left to tell.
    }
}

}  // namespace

void UnitLog::error(const std::string& text, int line) const noexcept {
    write(_sourceFile, line, Poco::Message::PRIO_ERROR, text);
}

void UnitLog::error(const std::exception& exc, int line) const noexcept {
    try {
        error(exceptionText(exc), line);
    } catch (...) {
        error(std::string(), line);
    }
}

void UnitLog::warning(const std::string& text, int line) const noexcept {
    write(_sourceFile, line, Poco::Message::PRIO_WARNING, text);
}

void UnitLog::information(const std::string& text, int line) const noexcept {
    write(_sourceFile, line, Poco::Message::PRIO_INFORMATION, text);
}

bool UnitLog::informationEnabled() const noexcept {
    if (ended) return false;
    try {
        return Poco::Logger::get(logName()).information();
    } catch (...) {
        return false;
    }
}

void endLogging() noexcept {
    ended = true;
}

std::string exceptionText(const std::exception& exc) {
    const auto* poco = dynamic_cast<const Poco::Exception*>(&exc);
    return poco ? poco->displayText() : exc.what();
}

}  // namespace kel
