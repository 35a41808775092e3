#pragma once

#include <Poco/Net/ServerSocket.h>
#include <Poco/Timestamp.h>
#include <common/WebApiBasic.h>

#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Access.h"
#include "Disclosure.h"
#include "Host.h"
#include "Metrics.h"
#include "PageSettings.h"
#include "PublishQueue.h"

namespace status_page {

/// A status page and the web API behind it, over the process's kel::WebApiBasic. The page itself
/// ("/status") and "/index/api/alive" are open; all other routes want the key (see Access). Replies
/// are JSON objects with a "code", 0 or -1, and with "msg" where that is -1.
class StatusPage : public std::enable_shared_from_this<StatusPage> {
public:
    /// Sockets that listen where the settings say. The first is the page's; it speaks TLS where
    /// there is a certificate.
    /// @throws Poco::InvalidAccessException  the address is no loopback address, there is no
    ///         certificate, and without TLS it may not be served.
    /// @throws Poco::IOException  the port or the certificate cannot be had. Both name the settings
    ///         or the file.
    static std::vector<Poco::Net::ServerSocket> listen(const PageSettings& settings);

    /// Takes a copy of the configuration for show.
    /// @param sockets  from listen().
    StatusPage(const PageSettings& settings, const std::vector<Poco::Net::ServerSocket>& sockets);

    /// Serves `host` from now on.
    void start(const std::shared_ptr<Host>& host);

    /// Serves no further request and begins no further publish. Close the host's connection before
    /// the page is destroyed: its destructor waits for a publish in progress.
    void stop();

    /// The page's address, without and with the key. The second one is a secret. Where it is served
    /// at every address of the machine: by the first of the host names if over TLS, since
    /// certificates are for names, else by the loopback address.
    std::string address() const;
    std::string link() const { return address() + "#key=" + _settings.key; }

private:
    using Request = Poco::Net::HTTPServerRequest;
    using Response = Poco::Net::HTTPServerResponse;
    using Object = Poco::JSON::Object;
    struct Exchange {
        Request& request;
        Response& response;
        const kel::WebApiBasic::ApiParams& params;
    };
    using View = void (StatusPage::*)(const Exchange&, Object&);
    enum class Open { kPage, kToHooks, kWithKey };

    void registerPage();
    void registerRoutes();
    void replaceBuiltIns();
    void addRoute(const std::string& path, const std::string& method, const std::string& what,
                  Open open, std::function<void(StatusPage&, Exchange&)> handler);
    void addToList(const std::string& path, const std::string& method, const std::string& what);
    void addView(const std::string& path, const std::string& what, View fill);
    std::optional<Access::Refusal> whyRefused(const Exchange& exchange, const std::string& method,
                                              Open open) const;

    void publish(Exchange& exchange);
    void serverStarted(Exchange& exchange);
    void metrics(Exchange& exchange);
    void state(const Exchange& exchange, Object& result);
    void messages(const Exchange& exchange, Object& result);
    void settings(const Exchange& exchange, Object& result);
    void log(const Exchange& exchange, Object& result);
    void routes(const Exchange& exchange, Object& result);

    Object::Ptr hostState() const;
    Object::Ptr connectionState() const;
    Object::Ptr queueState() const;
    Object::Ptr reports() const;
    std::vector<Metric> hostMetrics() const;
    std::vector<Metric> ownMetrics() const;

    const PageSettings _settings;
    const std::vector<Poco::Net::ServerSocket> _sockets;
    const std::vector<std::string> _hostNames;
    const Access _access;
    const Disclosure _disclosure;
    const Poco::Timestamp _started;
    const std::shared_ptr<kel::WebApiBasic> _api = kel::WebApiBasic::instance();
    Poco::JSON::Array::Ptr _routes{new Poco::JSON::Array};  // complete after start()
    std::shared_ptr<Host> _host;                            // set by start()
    std::unique_ptr<PublishQueue> _queue;                   // set by start()

    mutable std::mutex _mutex;
    // Guarded by _mutex: reports of other processes by their web hook.
    unsigned _reportCount = 0;
    std::deque<Object::Ptr> _reports;  // the newest first
};

}  // namespace status_page
