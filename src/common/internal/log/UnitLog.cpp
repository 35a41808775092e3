#include "UnitLog.h"

#include <Poco/Exception.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "../process/NeverDestroyed.h"
#include "../process/PublishedText.h"
#include "LogPipeline.h"

namespace kel {

namespace {

std::atomic<bool> stopped{false};
std::atomic<int> linesInProgress{0};

// POCO's loggers are destroyed at the process's end, while threads of the host may still log.
class LineInProgress {
public:
    LineInProgress() { ++linesInProgress; }
    ~LineInProgress() { --linesInProgress; }
    LineInProgress(const LineInProgress&) = delete;
    LineInProgress& operator=(const LineInProgress&) = delete;
};

PublishedText& publishedName() {
    static NeverDestroyed<PublishedText> name;
    return *name;
}

bool isControl(unsigned char c) {
    return c < 0x20 || c == 0x7F;
}

// U+0080 to U+009F, which terminals obey too.
bool isLongControl(const std::string& text, std::size_t i) {
    if (i + 1 >= text.size() || static_cast<unsigned char>(text[i]) != 0xC2) return false;
    const auto next = static_cast<unsigned char>(text[i + 1]);
    return next >= 0x80 && next <= 0x9F;
}

bool hasControls(const std::string& text) {
    const auto suspicious = [](unsigned char c) { return isControl(c) || c == 0xC2; };
    return std::any_of(text.begin(), text.end(), suspicious);
}

std::string escapeOf(unsigned char c) {
    constexpr const char* kDigits = "0123456789abcdef";
    switch (c) {
        case '\n':
            return "\\n";
        case '\r':
            return "\\r";
        case '\t':
            return "\\t";
        default:
            return std::string("\\x") + kDigits[c >> 4] + kDigits[c & 15];
    }
}

// Where the pipeline is at the logger, a line reaches it without a message: POCO asks the system
// for the process's id to make one, which takes longer than everything else.
void writeTo(Poco::Logger& logger, Poco::Message::Priority priority, const std::string& text,
             const char* file, int line) {
    Poco::AutoPtr<Poco::Channel> channel = logger.getChannel();
    if (auto* const pipeline = dynamic_cast<PipelineChannel*>(channel.get())) {
        if (pipeline->tryLog(recordOfNow(logger.name(), text, priority, file, line))) return;
    }
    logger.log(Poco::Message(logger.name(), text, priority, file, line));
}

void write(const char* file, int line, Poco::Message::Priority priority,
           const std::string& text) noexcept {
    if (!hasControls(text)) return logAsIs(priority, text, file, line);
    try {
        logAsIs(priority, withoutControls(text), file, line);
    } catch (const std::exception&) {
        // There is no memory for the text, so the line is lost.
    }
}

}  // namespace

void logAsIs(int priority, const std::string& text, const char* sourceFile, int line) noexcept {
    const LineInProgress inProgress;
    if (stopped) return;
    try {
        Poco::Logger& logger = Poco::Logger::get(loggerName());
        if (logger.getLevel() < priority) return;
        writeTo(logger, static_cast<Poco::Message::Priority>(priority), text, sourceFile, line);
    } catch (...) {
        // The logger itself has failed, so the line is lost.
    }
}

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
    const LineInProgress inProgress;
    if (stopped) return false;
    try {
        return Poco::Logger::get(loggerName()).information();
    } catch (...) {
        return false;
    }
}

const std::string& loggerName() noexcept {
    return publishedName().get();
}

void setLoggerName(const std::string& name) {
    publishedName().set(name);
}

std::string withoutControls(const std::string& text) {
    std::string escaped;
    escaped.reserve(text.size() + 16);
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (isLongControl(text, i)) {
            escaped += escapeOf(static_cast<unsigned char>(text[++i]));
        } else if (isControl(c)) {
            escaped += escapeOf(c);
        } else {
            escaped += text[i];
        }
    }
    return escaped;
}

void stopLogging(std::chrono::milliseconds patience) noexcept {
    stopped = true;
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (linesInProgress > 0 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

std::string exceptionText(const std::exception& exc) {
    const auto* poco = dynamic_cast<const Poco::Exception*>(&exc);
    return poco ? poco->displayText() : exc.what();
}

}  // namespace kel
