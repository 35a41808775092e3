#include "ConsoleSink.h"

#include <Poco/Environment.h>
#include <Poco/Message.h>

#include "../platform/Platform.h"

namespace kel {

namespace {

std::string_view colorOf(int priority) {
    if (priority <= Poco::Message::PRIO_ERROR) return "\033[1m\033[31m";
    if (priority == Poco::Message::PRIO_WARNING) return "\033[1m\033[33m";
    if (priority <= Poco::Message::PRIO_INFORMATION) return "\033[36m";
    return "\033[37m";
}

}  // namespace

bool consoleWantsColors() {
    if (!Poco::Environment::get("NO_COLOR", "").empty()) return false;
    const std::string force = Poco::Environment::get("CLICOLOR_FORCE", "");
    return (!force.empty() && force != "0") || platform::consoleIsTerminal();
}

// The colours are reset before the line's end, because a terminal may otherwise colour the next
// row.
std::string ConsoleSink::colored(const LineBlock& block) {
    constexpr std::size_t kSequences = 16;
    std::string text;
    text.reserve(block.text.size() + kSequences * block.lines.size());
    for (std::size_t i = 0; i < block.lines.size(); ++i) {
        const std::string_view line = block.line(i);
        text += colorOf(block.lines[i].priority);
        text += line.substr(0, line.size() - platform::lineEnd().size());
        text += "\033[0m";
        text += platform::lineEnd();
    }
    return text;
}

// A console that nobody reads any more is not a failure, since there is nobody who misses the
// lines.
bool ConsoleSink::write(const LineBlock& block, Progress& progress) {
    if (_colored) {
        writeText(colored(block), progress);
    } else {
        writeText(block.text, progress);
    }
    return true;
}

void ConsoleSink::writeText(std::string_view text, Progress& progress) {
    while (!text.empty()) {
        const std::string_view piece = _piece.next(text);
        const auto begin = Progress::Clock::now();
        platform::writeToConsole(piece);
        _piece.took(Progress::Clock::now() - begin);
        progress.made();
        text.remove_prefix(piece.size());
    }
}

}  // namespace kel
