#include "Utils.h"

#include <Poco/DirectoryIterator.h>
#include <Poco/Exception.h>
#include <Poco/File.h>
#include <Poco/Format.h>
#include <Poco/Process.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <set>
#include <sstream>
#include <stdexcept>
#include <tuple>
#include <utility>

#include "internal/json/ParseObject.h"
#include "internal/log/UnitLog.h"
#include "internal/net/ServerUri.h"
#include "internal/platform/Paths.h"
#include "internal/platform/Platform.h"

namespace kel {

namespace {

constexpr UnitLog log("src/common/Utils");

// Line numbers that operators filter on.
constexpr int kMicroServiceLine = 37;
constexpr int kPluginLine = 47;
constexpr int kSystemCommandLine = 157;
constexpr int kKillPocoExceptionLine = 163;
constexpr int kKillStdExceptionLine = 166;
constexpr int kStringifyFailedLine = 179;
constexpr int kParseFailedLine = 193;
constexpr int kPingFailedLine = 214;

constexpr std::array<std::uint32_t, 256> makeCrcTable() {
    std::array<std::uint32_t, 256> table{};
    for (std::uint32_t i = 0; i < table.size(); ++i) {
        std::uint32_t value = i;
        for (int bit = 0; bit < 8; ++bit) value = (value >> 1) ^ ((value & 1) ? 0xEDB88320u : 0u);
        table[i] = value;
    }
    return table;
}

constexpr std::array<std::uint32_t, 256> kCrcTable = makeCrcTable();

// Compact text, keys sorted.
std::string stringify(const Poco::JSON::Object& object) {
    std::ostringstream text;
    text.exceptions(std::ios::badbit);  // else a failed allocation would cut the text
    object.stringify(text, 0, -1);
    return text.str();
}

// The text of the failure without its kind, which is all that POCO's what() holds.
std::string parseFailure(const std::exception& exc) {
    const auto* poco = dynamic_cast<const Poco::Exception*>(&exc);
    return poco && !poco->message().empty() ? poco->message() : exc.what();
}

// The result of `test` for a file; false for one that is gone, or for a link that leads nowhere.
template <typename Test>
bool falseIfMissing(Test&& test) {
    try {
        return test();
    } catch (const Poco::FileAccessDeniedException&) {
        throw;
    } catch (const Poco::FileException&) {
        return false;
    }
}

// One call of listFilesRecursively().
class Listing {
public:
    Listing(std::list<std::string>& files, ListFileType type, const std::string& keyword)
        : _files(files), _type(type), _keyword(keyword) {}

    void run(const Poco::Path& directory) {
        // Where the directory cannot be asked for its identity, the iterator throws.
        const auto identity = platform::directoryIdentity(directory.toString());
        if (identity && !_visited.insert(*identity).second) return;
        const Poco::DirectoryIterator end;
        for (Poco::DirectoryIterator entry(directory); entry != end; ++entry) {
            if (falseIfMissing([&] { return entry->isDirectory(); })) {
                run(entry.path());
            } else if (!collect(*entry, entry.name())) {
                return;
            }
        }
    }

private:
    /// @return false for a type that is none of the three.
    bool collect(const Poco::File& file, const std::string& name) {
        switch (_type) {
            case ListFileType::MicroService:
                if (falseIfMissing([&] { return file.isFile() && file.canExecute(); })) {
                    add(file, "microservice: %s", kMicroServiceLine);
                }
                return true;
            case ListFileType::Plugin:
                if (isPlugin(name)) add(file, "pulugin: %s", kPluginLine);
                return true;
            case ListFileType::LogFile:
                if (matches(name, ".log")) _files.push_back(file.path());
                return true;
        }
        return false;
    }

    void add(const Poco::File& file, const char* logFormat, int line) {
        log.information(Poco::format(logFormat, file.path()), line);
        _files.push_back(file.path());
    }

    bool isPlugin(const std::string& name) const {
        const auto& suffixes = platform::pluginSuffixes();
        return std::any_of(suffixes.begin(), suffixes.end(),
                           [&](const std::string& suffix) { return matches(name, suffix); });
    }

    bool matches(const std::string& name, const std::string& suffix) const {
        return name.starts_with(_keyword) && name.ends_with(suffix);
    }

    std::list<std::string>& _files;
    const ListFileType _type;
    const std::string& _keyword;
    // A link may lead back to where the listing came from, or to a directory that others lead to.
    std::set<std::pair<std::uint64_t, std::uint64_t>> _visited;
};

// Ids 0 and 1 mean a group of processes and the system itself; one that does not fit would turn
// into another number, -1 for "all" among them.
void refuseUnsafeId(unsigned int pid) {
    if (pid <= 1 || !std::in_range<Poco::Process::PID>(pid)) {
        throw Poco::InvalidArgumentException("refused to end process id " + std::to_string(pid));
    }
}

std::vector<std::string> ipv4AddressesOf(const std::string& host) {
    std::vector<std::string> texts;
    for (const auto& address : addressesOfHost(host)) {
        if (address.family() == Poco::Net::IPAddress::IPv4) texts.push_back(address.toString());
    }
    if (texts.empty()) throw std::invalid_argument("only IPv4 hosts can be pinged");
    return texts;
}

bool answersPing(const std::string& host) {
    constexpr platform::EchoRequest kRequest{48, 128, std::chrono::milliseconds(2000)};
    return platform::answersEcho(ipv4AddressesOf(host), kRequest);
}

}  // namespace

Poco::JSON::Object::Ptr stringToJson(const std::string& text) {
    try {
        return parseJsonObject(text);
    } catch (const std::exception& exc) {
        log.error(parseFailure(exc), kParseFailedLine);
        return {};
    }
}

std::string jsonToString(Poco::JSON::Object::Ptr obj) {
    if (!obj) return {};
    try {
        return stringify(*obj);
    } catch (const std::exception& exc) {
        log.error(Poco::format("JsonToString exception: %s", std::string(exc.what())),
                  kStringifyFailedLine);
        return {};
    }
}

unsigned int GetCRC32(unsigned int crc, unsigned char* buffer, int length) {
    std::uint32_t value = ~crc;
    for (; length != 0; --length) value = kCrcTable[(value ^ *buffer++) & 0xFF] ^ (value >> 8);
    return ~value;
}

bool findProcessByName(const std::string& name, std::vector<unsigned long>& pids) {
    // A process that has just ended has no name any more.
    if (!name.empty()) {
        logExceptions(log, [&] {
            const auto found = platform::processesByName(name);
            pids.insert(pids.end(), found.begin(), found.end());
        });
    }
    return !pids.empty();
}

void cleanProcessByName(const std::string& name) {
    std::vector<unsigned long> pids;
    findProcessByName(name, pids);
    // The caller, where it is asked for by its own name, would not get to the ones after it.
    std::stable_partition(pids.begin(), pids.end(),
                          [](unsigned long pid) { return pid != platform::currentProcessId(); });
    for (const unsigned long pid : pids) cleanProcessById(static_cast<unsigned int>(pid));
}

void cleanProcessById(const unsigned int& pid) {
    try {
        refuseUnsafeId(pid);
        const std::string command = platform::killCommand(pid);
        log.information(Poco::format("system command: %s", command), kSystemCommandLine);
        std::ignore = std::system(command.c_str());  // the kill below tells what is wrong
        Poco::Process::kill(static_cast<Poco::Process::PID>(pid));
    } catch (const Poco::Exception& exc) {
        log.error(exc.displayText(), kKillPocoExceptionLine);
    } catch (const std::exception& exc) {
        log.error(std::string(exc.what()), kKillStdExceptionLine);
    }
}

std::string getCurrentPath() {
    return paths::executable().parent().toString();
}

std::string getCurrentChildPath(const std::string& child) {
    return Poco::Path(getCurrentPath()).pushDirectory(child).toString();
}

void listFilesRecursively(const Poco::Path& dir, std::list<std::string>& files,
                          const ListFileType& type, const std::string& keyword) {
    Listing(files, type, keyword).run(dir);
}

bool pingIp(const std::string& ip) {
    try {
        return answersPing(hostOfServerUri(ip));
    } catch (const std::exception& exc) {
        log.error(Poco::format("ping failed: %s, ip: %s", std::string(exc.what()), ip),
                  kPingFailedLine);
        return false;
    }
}

}  // namespace kel

std::string makeJsonDefault(int code, std::string msg) {
    Poco::JSON::Object reply;
    reply.set("code", code);
    reply.set("msg", msg);
    return kel::stringify(reply);
}
