// WebHookBasic.cpp - reports to the management endpoint.
//
// The timers of all hooks run on a pool of their own, since web API connections may hold every
// thread of POCO's default pool. A tick only submits a request; requests hold nothing of the hook.
// Whoever stops a timer waits for a tick in progress, which in turn never waits for that lock.

#include "WebHookBasic.h"

#include <Poco/ThreadPool.h>

#include <algorithm>
#include <iterator>
#include <mutex>
#include <set>

#include "Config.h"
#include "internal/http/JsonBody.h"
#include "internal/process/LibraryStop.h"

namespace kel {

using HTTPStatus = Poco::Net::HTTPResponse::HTTPStatus;

namespace {

constexpr long kKeepalivePeriod = 10000;  // milliseconds
constexpr int kMaxTimers = 1 << 20;       // no limit: a process has fewer threads

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

void handReplyOn(const WebHookBasic::Callback& callback, HTTPStatus status, std::istream& body) {
    try {
        Poco::JSON::Object::Ptr reply = readJsonObject(body);
        if (callback) callback(status, *reply);
    } catch (const std::exception&) {
        Poco::JSON::Object none;
        callback(status, none);
    }
}

// Never destroyed: hooks may go at any time, also among static destructors.
struct Timers {
    std::mutex mutex;
    // Guarded by mutex, as the timer of every hook.
    std::set<WebHookBasic*> hooks;
};

Timers& timers() {
    static Timers& instance = *new Timers;
    return instance;
}

Poco::ThreadPool& timerPool() {
    static auto& instance = *new Poco::ThreadPool("hook", 1, kMaxTimers);
    return instance;
}

}  // namespace

std::shared_ptr<WebHookBasic> WebHookBasic::createInstance() {
    return std::shared_ptr<WebHookBasic>(new WebHookBasic);
}

std::shared_ptr<WebHookBasic> WebHookBasic::defaultWebHook() {
    static const auto& instance = *new std::shared_ptr<WebHookBasic>(createInstance());
    return instance;
}

WebHookBasic::WebHookBasic() : _http_client(HttpClient::createInstance()) {}

WebHookBasic::~WebHookBasic() {
    const std::lock_guard<std::mutex> lock(timers().mutex);
    timers().hooks.erase(this);
    _timer = nullptr;
}

void WebHookBasic::reportServerStarted() {
    static const bool enable = hookEnabled();
    // Never destroyed, here and below: reports may still be made while the process ends.
    static const std::string& url = *new std::string(startedUrl());
    if (enable && !url.empty()) doHttpRequest(url, ignoreReply);
}

void WebHookBasic::reportServerKeepalive() {
    static const bool enable = hookEnabled();
    if (!enable) return;
    const std::lock_guard<std::mutex> lock(timers().mutex);
    if (processIsEnding()) return;
    onLibraryStop(StopStage::kRequests, &stopTimers);
    timers().hooks.insert(this);
    _timer = nullptr;  // ends a tick in progress
    for (auto& report : _reports) report.reset();
    _timer = new Poco::Timer(0, kKeepalivePeriod);
    _timer->start(Poco::TimerCallback<WebHookBasic>(*this, &WebHookBasic::onTimer), timerPool());
}

void WebHookBasic::doHttpRequest(std::string url, Callback callback) {
    _http_client->doHttpRequest(
        std::move(url), [callback = std::move(callback)](HTTPStatus status, std::istream& body) {
            handReplyOn(callback, status, body);
        });
}

// A peer that drips its reply holds a thread for as long as it likes: two, not one more each time.
// With one only, an endpoint that answers after 10 s would get every second report.
// What this throws ends in POCO's timer, which carries on; the pool has logged a refused request.
void WebHookBasic::onTimer(Poco::Timer&) {
    static const bool enable = hookEnabled();
    static const std::string& url = *new std::string(startedUrl());
    if (!enable || url.empty()) return;
    auto* const place = std::find_if(std::begin(_reports), std::end(_reports),
                                     [](const auto& earlier) { return earlier.expired(); });
    if (place == std::end(_reports)) return;
    const auto report = std::make_shared<char>();
    *place = report;
    doHttpRequest(url, [report](auto, auto&) {});  // which keeps it until the request has ended
}

void WebHookBasic::stopTimers() {
    const std::lock_guard<std::mutex> lock(timers().mutex);
    for (WebHookBasic* hook : timers().hooks) hook->_timer = nullptr;
    timers().hooks.clear();
    timerPool().stopAll();
}

}  // namespace kel
