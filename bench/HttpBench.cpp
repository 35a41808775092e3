// Requests per second and the processor time for one: a JSON route and the reply to an unknown path
// beside a bare POCO server with the same reply and headers, asked by wrk over kept connections;
// and asynchronous GETs beside sessions made by hand.

#include <Poco/Exception.h>
#include <Poco/JSON/Object.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPRequestHandler.h>
#include <Poco/Net/HTTPRequestHandlerFactory.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/HTTPServer.h>
#include <Poco/Net/HTTPServerParams.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/NullStream.h>
#include <Poco/PipeStream.h>
#include <Poco/Process.h>
#include <Poco/StreamCopier.h>
#include <Poco/ThreadPool.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <ctime>
#include <deque>
#include <functional>
#include <mutex>
#include <semaphore>
#include <string>
#include <thread>
#include <vector>

#include "Rounds.h"
#include "common/HttpClient.h"
#include "common/ThreadPool.h"
#include "common/WebApiBasic.h"

namespace {

using Poco::Net::HTTPRequest;
using Poco::Net::HTTPResponse;
using Poco::Net::HTTPServerRequest;
using Poco::Net::HTTPServerResponse;
using Poco::Net::ServerSocket;

constexpr int kGets = 4'000;
constexpr int kClients = 8;
const std::string kNotFound = R"({"code": -1, "msg": "api not found"})";

ServerSocket listener() {
    return ServerSocket(Poco::Net::SocketAddress("127.0.0.1", 0));
}

std::string urlOf(const ServerSocket& socket, const std::string& path) {
    return "http://" + socket.address().toString() + path;
}

void fill(Poco::JSON::Object& result) {
    result.set("code", 0);
    result.set("msg", "success");
    result.set("n", 42);
}

// What a host would write without the library.
class BareHandler : public Poco::Net::HTTPRequestHandler {
public:
    void handleRequest(HTTPServerRequest& request, HTTPServerResponse& response) override {
        if (request.getURI() != "/json") {
            response.setContentLength64(static_cast<Poco::Int64>(kNotFound.size()));
            response.send() << kNotFound;
            return;
        }
        response.setChunkedTransferEncoding(true);
        response.setContentType("application/json");
        Poco::JSON::Object result;
        fill(result);
        result.stringify(response.send(), 0, -1);
    }
};

class BareFactory : public Poco::Net::HTTPRequestHandlerFactory {
public:
    Poco::Net::HTTPRequestHandler* createRequestHandler(const HTTPServerRequest&) override {
        return new BareHandler;
    }
};

// Both serve 16 connections at a time, as by default; further ones wait.
class BareServer {
public:
    BareServer() : _server(new BareFactory, _pool, socket, new Poco::Net::HTTPServerParams) {
        _server.start();
    }
    ~BareServer() { _server.stopAll(true); }

    const ServerSocket socket = listener();

private:
    Poco::ThreadPool _pool;
    Poco::Net::HTTPServer _server;
};

class OurServer {
public:
    OurServer() {
        _api->apiRegist("/json", [](auto&, auto&, auto&, auto& result) { fill(result); });
        _api->start(socket);
    }
    ~OurServer() { _api->stop(); }

    const ServerSocket socket = listener();

private:
    const std::shared_ptr<kel::WebApiBasic> _api = kel::WebApiBasic::instance();
};

// Status, fields and body; the date is cut out.
std::string replyOf(const ServerSocket& socket, const std::string& path) {
    Poco::Net::HTTPClientSession session(socket.address());
    session.setKeepAlive(true);
    HTTPRequest request(HTTPRequest::HTTP_GET, path, HTTPRequest::HTTP_1_1);
    session.sendRequest(request);
    HTTPResponse response;
    std::string body;
    Poco::StreamCopier::copyToString(session.receiveResponse(response), body);
    std::ostringstream whole;
    response.set("Date", "");
    response.write(whole);
    return whole.str() + body;
}

double numberAfter(const std::string& text, const std::string& label) {
    const auto at = text.find(label);
    return at == std::string::npos ? 0 : std::stod(text.substr(at + label.size()));
}

// wrk counts those that never got a thread as time-outs; all else is a wrong result.
std::string reportOfWrk(const std::string& url, int connections) {
    Poco::Pipe out;
    const auto wrk = Poco::Process::launch(
        "wrk", {"-t1", "-d2s", "-c" + std::to_string(connections), url}, nullptr, &out, nullptr);
    Poco::PipeInputStream lines(out);
    std::string report;
    Poco::StreamCopier::copyToString(lines, report);
    bench::check(wrk.wait() == 0, "wrk has failed: " + report);
    bench::check(report.find("Non-2xx") == std::string::npos, report);
    return report;
}

double requestsPerSecond(const std::string& url, int connections) {
    const std::string report = reportOfWrk(url, connections);
    const double rate = numberAfter(report, "Requests/sec:");
    bench::check(rate > 0, "no replies: " + report);
    return rate;
}

// In microseconds, of this process, which is both servers: the other has nothing to do meanwhile.
double processorTimeOfRequest(const std::string& url) {
    const std::clock_t begin = std::clock();
    const std::string report = reportOfWrk(url, 1);
    const double took = double(std::clock() - begin) / CLOCKS_PER_SEC;
    const auto count = report.find(" requests in");
    bench::check(count != std::string::npos, report);
    return took * 1e6 / std::stod(report.substr(report.rfind('\n', count) + 1));
}

void serve(const bench::Rounds& rounds) {
    OurServer ours;
    BareServer bare;
    for (const auto& [path, title] : {std::pair<std::string, std::string>{"/json", "JSON route"},
                                      {"/unknown", "unknown path"}}) {
        bench::check(replyOf(ours.socket, path) == replyOf(bare.socket, path),
                     "the replies differ: " + replyOf(ours.socket, path));
        const std::string url = urlOf(ours.socket, path), bareUrl = urlOf(bare.socket, path);
        for (const int connections : {1, 8, 64}) {
            const auto ask = [connections](const std::string& asked) {
                return bench::Job(
                    [=] { return std::vector<double>{requestsPerSecond(asked, connections)}; });
            };
            rounds.contest(title + ", kept connections: " + std::to_string(connections),
                           {"requests/s"}, ask(url), {{"POCO's HTTPServer", ask(bareUrl), 1.0}});
        }
        const auto cost = [](const std::string& asked) {
            return bench::Job([=] { return std::vector<double>{processorTimeOfRequest(asked)}; });
        };
        rounds.contest(title + ", kept connections: 1", {"us of the server's processor time"},
                       cost(url), {{"POCO's HTTPServer", cost(bareUrl), 1.0}},
                       bench::Better::kLower);
    }
}

// As HttpClient does it: a connection for each, with the same time-outs.
bool getByHand(const Poco::Net::SocketAddress& address) {
    Poco::Net::HTTPClientSession session(address);
    session.setTimeout(Poco::Timespan(2, 0), Poco::Timespan(10, 0), Poco::Timespan(10, 0));
    HTTPRequest request(HTTPRequest::HTTP_GET, "/json", HTTPRequest::HTTP_1_1);
    session.sendRequest(request);
    HTTPResponse response;
    Poco::NullOutputStream none;
    Poco::StreamCopier::copyStream(session.receiveResponse(response), none);
    return response.getStatus() == HTTPResponse::HTTP_OK;
}

double getsPerSecond(const std::function<int()>& getAll) {
    const auto begin = std::chrono::steady_clock::now();
    bench::check(getAll() == kGets, "not every request has succeeded");
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
    return kGets / took.count();
}

// kClients requests are under way at a time: each callback asks for the next.
class CallbackChain {
public:
    explicit CallbackChain(const std::string& url) : _url(url) {}

    int getAll() {
        for (int i = 0; i < kClients; ++i) getNext();
        for (int i = 0; i < kClients; ++i) _ended.acquire();
        return _succeeded;
    }

private:
    void getNext() {
        if (_begun++ >= kGets) return _ended.release();
        _client->doHttpRequest(_url, [this](auto status, std::istream& body) {
            Poco::NullOutputStream none;
            Poco::StreamCopier::copyStream(body, none);
            _succeeded += status == HTTPResponse::HTTP_OK;
            getNext();
        });
    }

    const std::string _url;
    const std::shared_ptr<kel::HttpClient> _client = kel::HttpClient::defaultHttpClient();
    std::atomic<int> _begun{0}, _succeeded{0};
    std::counting_semaphore<kClients> _ended{0};
};

// One thread submits all, and sleeps while kClients are under way.
int getBySubmitter(const std::string& url) {
    const auto client = kel::HttpClient::defaultHttpClient();
    std::counting_semaphore<kClients> places(kClients);
    std::atomic<int> succeeded{0};
    for (int i = 0; i < kGets; ++i) {
        places.acquire();
        client->doHttpRequest(url, [&](auto status, std::istream& body) {
            Poco::NullOutputStream none;
            Poco::StreamCopier::copyStream(body, none);
            succeeded += status == HTTPResponse::HTTP_OK;
            places.release();
        });
    }
    for (int i = 0; i < kClients; ++i) places.acquire();
    return succeeded;
}

// As above, by hand: a queue and kClients threads that take from it.
class QueueOfGets {
public:
    explicit QueueOfGets(const Poco::Net::SocketAddress& address) : _address(address) {}

    int getAll() {
        std::vector<std::thread> threads;
        for (int i = 0; i < kClients; ++i) threads.emplace_back([this] { serve(); });
        for (int i = 0; i < kGets + kClients; ++i) {
            _places.acquire();
            submit(i < kGets);
        }
        for (std::thread& thread : threads) thread.join();
        return _succeeded;
    }

private:
    void submit(bool isGet) {
        {
            const std::lock_guard<std::mutex> lock(_mutex);
            _queue.push_back(isGet);
        }
        _submitted.notify_one();
    }

    bool take() {
        std::unique_lock<std::mutex> lock(_mutex);
        _submitted.wait(lock, [this] { return !_queue.empty(); });
        const bool isGet = _queue.front();
        _queue.pop_front();
        return isGet;
    }

    void serve() {
        while (take()) {
            _succeeded += getByHand(_address);
            _places.release();
        }
        _places.release();
    }

    const Poco::Net::SocketAddress _address;
    std::counting_semaphore<kClients> _places{kClients};
    std::atomic<int> _succeeded{0};
    std::mutex _mutex;
    std::condition_variable _submitted;
    std::deque<bool> _queue;  // guarded by _mutex; false ends a thread
};

int getBySessions(const Poco::Net::SocketAddress& address) {
    std::atomic<int> begun{0}, succeeded{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kClients; ++i) {
        threads.emplace_back([&] {
            while (begun++ < kGets) succeeded += getByHand(address);
        });
    }
    for (std::thread& thread : threads) thread.join();
    return succeeded;
}

void request(const bench::Rounds& rounds) {
    BareServer server;
    const auto address = server.socket.address();
    const auto rateOf = [](std::function<int()> getAll) {
        return bench::Job([=] { return std::vector<double>{getsPerSecond(getAll)}; });
    };
    const std::string url = urlOf(server.socket, "/json");
    const bench::Rival loops{"HTTPClientSession, 8 threads in loops",
                             rateOf([&] { return getBySessions(address); }), 1.0};
    const bench::Rival queue{"HTTPClientSession, 8 threads and a queue",
                             rateOf([&] { return QueueOfGets(address).getAll(); }), 1.0};
    rounds.contest("GETs, 8 at a time, each callback asks for the next", {"requests/s"},
                   rateOf([&] { return CallbackChain(url).getAll(); }), {loops});
    rounds.contest("GETs, 8 at a time, submitted by one thread", {"requests/s"},
                   rateOf([&] { return getBySubmitter(url); }), {loops, queue});
}

}  // namespace

int main(int argc, char** argv) {
    return bench::run(argc, argv, [](const bench::Rounds& rounds) {
        rounds.table("HTTP", "Loopback; replies by `wrk` with one thread, for 2 s a round.");
        serve(rounds);
        request(rounds);
    });
}
