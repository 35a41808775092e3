#pragma once

#include <chrono>
#include <exception>
#include <string>

namespace kel {

/// How every unit logs: one constant of this class per source file, one call per line. Goes to the
/// logger that loggerName() names at that moment. What peers sent may be part of a text, so control
/// characters in it are written as escapes. A logging failure never becomes the caller's.
class UnitLog {
public:
    /// @param sourceFile  a string literal: POCO messages keep the pointer.
    constexpr explicit UnitLog(const char* sourceFile) : _sourceFile(sourceFile) {}

    void error(const std::string& text, int line = __builtin_LINE()) const noexcept;
    void error(const std::exception& exc, int line = __builtin_LINE()) const noexcept;
    void warning(const std::string& text, int line = __builtin_LINE()) const noexcept;
    void information(const std::string& text, int line = __builtin_LINE()) const noexcept;

    /// Whether information() would write; saves building a long text.
    bool informationEnabled() const noexcept;

private:
    const char* _sourceFile;
};

/// One line as UnitLog logs it, with `text` as it is.
/// @param priority    as POCO numbers them.
/// @param sourceFile  a string literal.
void logAsIs(int priority, const std::string& text, const char* sourceFile, int line) noexcept;

/// Name of the library's POCO logger; "" before the first setLoggerName(). Never waits.
const std::string& loggerName() noexcept;
void setLoggerName(const std::string& name);

/// `text` with its control characters as escapes: "\n", "\t", "\x1b" and the like. Those that UTF-8
/// writes with two bytes are among them. A backslash stays as it is.
std::string withoutControls(const std::string& text);

/// From this call on nothing is logged, because POCO's own static objects are about to be destroyed
/// while threads of the host may still be running and logging. Waits for the lines that they are
/// just writing, `patience` at the longest; in a forked child, which has none of these threads, it
/// must be 0.
void stopLogging(std::chrono::milliseconds patience) noexcept;

/// displayText() of a POCO exception, what() of any other.
std::string exceptionText(const std::exception& exc);

/// Runs `call` at an edge that no exception may cross: what it throws is logged.
/// @return whether it threw nothing.
template <typename Call>
bool logExceptions(const UnitLog& log, Call&& call, int line = __builtin_LINE()) {
    try {
        call();
        return true;
    } catch (const std::exception& exc) {
        log.error(exc, line);
    } catch (...) {
        log.error("unknown exception", line);
    }
    return false;
}

/// Logs what leaves `call` and passes it on, where somebody else deals with it but tells nobody.
template <typename Call>
void logAndRethrow(const UnitLog& log, Call&& call, int line = __builtin_LINE()) {
    try {
        call();
    } catch (const std::exception& exc) {
        log.error(exc, line);
        throw;
    } catch (...) {
        log.error("unknown exception", line);
        throw;
    }
}

}  // namespace kel
