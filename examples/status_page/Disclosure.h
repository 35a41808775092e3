#pragma once

#include <Poco/JSON/Object.h>

#include <set>
#include <string>
#include <vector>

namespace status_page {

/// What the page may show of the configuration and of the log. Shown are the library's settings
/// that hold no secret, and those of the host that are on a list; any other may be a secret, and
/// so is its value wherever it occurs in a log line. Of addresses neither the user information nor
/// the query is shown.
/// Threads: all operations may be called from any thread.
class Disclosure {
public:
    /// Takes a copy of the configuration. Threads: as kel::configInstance().
    /// @param shown  dotted keys of the host's settings that are shown.
    explicit Disclosure(const std::vector<std::string>& shown);

    /// The whole configuration, in which what is not shown reads "***". Empty text stays empty,
    /// which tells that nothing is set.
    Poco::JSON::Object::Ptr settings() const { return _settings; }

    /// `line` without the values that settings() does not show.
    std::string line(std::string line) const;

    /// `text` in which the user information of an address and all from its query on reads "***".
    static std::string withoutCredentials(std::string text);

private:
    void hide(const std::string& text);
    void hideCredentials(const std::string& address);
    Poco::Dynamic::Var cover(const std::string& key, const Poco::Dynamic::Var& value);
    Poco::JSON::Object::Ptr coverObject(const std::string& prefix,
                                        const Poco::JSON::Object& object);
    Poco::JSON::Array::Ptr coverArray(const std::string& key, const Poco::JSON::Array& array);

    std::set<std::string> _shown;
    std::vector<std::string> _hidden;  // texts that settings() does not show, the longest first
    Poco::JSON::Object::Ptr _settings;
};

}  // namespace status_page
