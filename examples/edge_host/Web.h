#pragma once

#include <Poco/Net/ServerSocket.h>
#include <common/WebApiBasic.h>

#include <deque>
#include <memory>
#include <mutex>
#include <string>

#include "Node.h"
#include "Settings.h"

/// The host's web API and its status page. GET routes and one POST, which publishes; replies are
/// JSON objects with a "code", 0 or -1, and with "msg" where that is -1.
///
/// Browsers are let in only from the host's own pages: with an "Origin" that is this host, and
/// with a "Host" that is an address or "localhost", since any other name can be made to point here.
class Web : public std::enable_shared_from_this<Web> {
public:
    /// Takes the port of the settings, and a copy of the configuration.
    /// @throws Poco::IOException  the port cannot be had; names it and its settings.
    explicit Web(const Settings& settings);

    /// Serves `node` from now on.
    void start(const std::shared_ptr<Node>& node);

    /// Serves no further request.
    void stop();

private:
    using Request = Poco::Net::HTTPServerRequest;
    using Response = Poco::Net::HTTPServerResponse;
    using Params = kel::WebApiBasic::ApiParams;
    using Object = Poco::JSON::Object;

    void registerViews();
    void registerActions();
    void replaceBuiltIns();
    void get(const std::string& path, const std::string& what,
             void (Web::*fill)(const Params&, Object&));
    void list(const std::string& path, const std::string& method, const std::string& what);

    void publish(const Request& request, Response& response, Object& result, const Object& body);
    void state(const Params& params, Object& result);
    void messages(const Params& params, Object& result);
    void settings(const Params& params, Object& result);
    void log(const Params& params, Object& result);
    void routes(const Params& params, Object& result);
    void serverStarted(const Request& request, Object& result);

    Object::Ptr host() const;
    Object::Ptr reports() const;

    const Settings _settings;
    const Object::Ptr _shownSettings;
    const Poco::Net::ServerSocket _socket;
    const Poco::Timestamp _started;
    const std::shared_ptr<kel::WebApiBasic> _api = kel::WebApiBasic::instance();
    std::shared_ptr<Node> _node;                            // set by start()
    Poco::JSON::Array::Ptr _routes{new Poco::JSON::Array};  // complete after start()

    mutable std::mutex _mutex;
    // Guarded by _mutex: reports of other processes by their web hook.
    unsigned _reportCount = 0;
    std::deque<Object::Ptr> _reports;  // the newest first
};
