// WebHookBasic.cpp - reports to the management endpoint.
//
//   state                        who may touch it     lock
//   keep-alives of all hooks     any thread           Keepalives::mutex
//   hook settings                any thread           none: read once, then never changed
//
// Whoever ends a keep-alive holds that lock and waits for a tick in progress. A tick therefore
// never takes it: it only submits a request, and requests use nothing of the hook.

#include "WebHookBasic.h"

#include <mutex>
#include <optional>
#include <set>

#include "Config.h"
#include "HttpClient.h"
#include "internal/http/JsonBody.h"
#include "internal/http/Keepalive.h"
#include "internal/process/LibraryStop.h"
#include "internal/process/NeverDestroyed.h"

namespace kel {

using HTTPStatus = Poco::Net::HTTPResponse::HTTPStatus;

namespace {

constexpr long kKeepalivePeriod = 10000;  // milliseconds

bool hookEnabled() {
    return configInstance().getBool("hook.enable", false);
}

std::string startedUrl() {
    return configInstance().getString("hook.on_server_started", "");
}

[[maybe_unused]] const bool defaultsWritten = [] {
    Poco::Util::JSONConfiguration& store = configInstance();
    const std::string api = "http://127.0.0.1:9528/index/api/";
    store.setBool("hook.enable", false);
    store.setInt("hook.timeoutSec", 10);
    store.setString("hook.admin_params", "secret=7d41a0c2-5e93-4f1b-8c26-b0e94d3a7f15");
    store.setInt("hook.alive_interval", 30);
    store.setInt("hook.retry", 1);
    store.setInt("hook.retry_delay", 3);
    store.setString("hook.on_server_started", api + "on_server_started");
    store.setString("hook.on_server_keepalive", api + "on_server_keepalive");
    return true;
}();

void ignoreReply(HTTPStatus, Poco::JSON::Object&) {}

void callWithObject(const WebHookBasic::Callback& callback, HTTPStatus status, std::istream& body) {
    try {
        Poco::JSON::Object::Ptr reply = readJsonObject(body);
        if (callback) callback(status, *reply);
    } catch (const std::exception&) {
        Poco::JSON::Object none;
        callback(status, none);
    }
}

// The keep-alives of all hooks. A hook may be released at any time, also by a static destructor.
struct Keepalives {
    std::mutex mutex;
    std::set<std::optional<Keepalive>*> all;  // guarded by mutex, and so is what they point to
};

Keepalives& keepalives() {
    static NeverDestroyed<Keepalives> instance;
    return *instance;
}

void stopKeepalives() {
    const std::lock_guard<std::mutex> lock(keepalives().mutex);
    for (std::optional<Keepalive>* keepalive : keepalives().all) keepalive->reset();
    Keepalive::joinThreads();
}

void request(HttpClient& client, std::string url, WebHookBasic::Callback callback) {
    client.doHttpRequest(std::move(url),
                         [callback = std::move(callback)](HTTPStatus status, std::istream& body) {
                             callWithObject(callback, status, body);
                         });
}

// POCO's timer catches what this throws, and carries on; the pool has logged a refused request.
void reportKeepalive(HttpClient& client, const Keepalive::Ticket& ticket) {
    static const bool enable = hookEnabled();
    static NeverDestroyed<const std::string> url(startedUrl());
    if (!enable || url->empty()) return;
    request(client, *url, [ticket](auto, auto&) {});  // kept until the request has ended
}

}  // namespace

struct WebHookBasic::Inside {
    const std::shared_ptr<HttpClient> client = HttpClient::createInstance();
    std::optional<Keepalive> keepalive;  // guarded by keepalives().mutex

    Inside() {
        const std::lock_guard<std::mutex> lock(keepalives().mutex);
        keepalives().all.insert(&keepalive);
    }
    ~Inside() {
        const std::lock_guard<std::mutex> lock(keepalives().mutex);
        keepalives().all.erase(&keepalive);
        keepalive.reset();
    }
};

std::shared_ptr<WebHookBasic> WebHookBasic::createInstance() {
    return std::shared_ptr<WebHookBasic>(new WebHookBasic);
}

std::shared_ptr<WebHookBasic> WebHookBasic::defaultWebHook() {
    static NeverDestroyed<std::shared_ptr<WebHookBasic>> instance(createInstance());
    return *instance;
}

WebHookBasic::WebHookBasic() : _inside(new Inside) {}

WebHookBasic::~WebHookBasic() = default;

void WebHookBasic::reportServerStarted() {
    static const bool enable = hookEnabled();
    static NeverDestroyed<const std::string> url(startedUrl());
    if (enable && !url->empty()) doHttpRequest(*url, ignoreReply);
}

void WebHookBasic::reportServerKeepalive() {
    static const bool enable = hookEnabled();
    if (!enable) return;
    const std::lock_guard<std::mutex> lock(keepalives().mutex);
    if (processIsEnding()) return;
    onLibraryStop(StopStage::kRequests, &stopKeepalives);
    _inside->keepalive.reset();
    _inside->keepalive.emplace(kKeepalivePeriod, [client = _inside->client](const auto& ticket) {
        reportKeepalive(*client, ticket);
    });
}

void WebHookBasic::doHttpRequest(std::string url, Callback callback) {
    request(*_inside->client, std::move(url), std::move(callback));
}

}  // namespace kel
