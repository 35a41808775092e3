#pragma once

#include <Poco/JSON/Object.h>
#include <Poco/Net/HTTPResponse.h>

#include <functional>
#include <memory>
#include <string>

#include "Export.h"

namespace kel {

/// Reports this process's start and life to a management endpoint: GET requests to the URL under
/// "hook.on_server_started", if "hook.enable" is true. Loading the library writes the defaults of
/// the "hook." settings into configInstance(); reporting is off by default.
///
/// Each reporting operation reads the settings when it first runs in the process; later changes do
/// not reach it.
/// Threads: all operations may be called from any thread. A hook may be released while its requests
/// run; releasing it ends its keep-alive.
class KEL_API WebHookBasic {
public:
    /// Status and JSON object of the reply; the object is empty where the body was none (also
    /// after a transport failure, with status 400) or exceeded a limit of HttpLimits.
    using Callback = std::function<void(Poco::Net::HTTPResponse::HTTPStatus, Poco::JSON::Object&)>;

    /// A hook with a client and a timer of its own; the settings are the same for every hook.
    static std::shared_ptr<WebHookBasic> createInstance();

    /// The hook that the whole process shares. It is never replaced.
    static std::shared_ptr<WebHookBasic> defaultWebHook();

    ~WebHookBasic();

    WebHookBasic(const WebHookBasic&) = delete;
    WebHookBasic& operator=(const WebHookBasic&) = delete;

    /// Sends one report in the background.
    /// @throws Poco::NoThreadAvailableException  as HttpClient::doHttpRequest().
    /// @throws Poco::SyntaxException             "hook.enable" is neither true nor false.
    void reportServerStarted();

    /// Sends a report at once and every 10 s from then on, until the hook is released or
    /// stopLibrary() is called. Another call begins anew. A report is left out while two earlier
    /// ones are still under way, or when there is no free thread for it.
    /// @throws Poco::SyntaxException  "hook.enable" is neither true nor false.
    void reportServerKeepalive();

    /// GETs `url` in the background, on a thread of ThreadPool::defaultPool(), which also runs the
    /// callback. A callback that throws over an object is called again with an empty one. A
    /// Poco::Exception that it throws over a reply's empty object counts as a failed request: one
    /// error line in the log, and a last call with status 400. What else it throws is logged.
    /// @throws Poco::NoThreadAvailableException  as HttpClient::doHttpRequest().
    void doHttpRequest(std::string url, Callback callback);

private:
    WebHookBasic();

    struct Inside;

    const std::unique_ptr<Inside> _inside;
};

}  // namespace kel
