#include <Poco/Logger.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/NetException.h>
#include <Poco/Net/ServerSocket.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <mutex>
#include <random>
#include <sstream>
#include <thread>
#include <vector>

#include "Await.h"
#include "Broker.h"
#include "SmallBroker.h"
#include "Soak.h"
#include "common/Library.h"
#include "common/Logger.h"
#include "common/MqttClient++.h"
#include "common/ThreadPool.h"
#include "common/WebApiBasic.h"

namespace soak {

namespace {

using kel::MqttClient;

constexpr int kPoolThreads = 32;
constexpr int kMqttThreads = 8;  // receive, dispatching and background threads
constexpr auto kAlways = [](auto&&...) { return true; };

class Clock {
public:
    double seconds() const {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - _begin).count();
    }

private:
    const std::chrono::steady_clock::time_point _begin = std::chrono::steady_clock::now();
};

long scaled(long full, double scale) {
    return std::max(10L, static_cast<long>(static_cast<double>(full) * scale));
}

// Runs `work(thread)` on so many threads, and waits for them.
void onThreads(int count, const std::function<void(int)>& work) {
    std::vector<std::jthread> threads;
    for (int i = 0; i < count; ++i) threads.emplace_back(work, i);
}

std::shared_ptr<MqttClient> connected(const std::string& address, const std::string& id) {
    const auto client = MqttClient::createInstance(address, id, "", "");
    client->Connect(kAlways, kAlways);
    const auto ready = [&] { return client->PublishMessage("{}", "ready", 0, 0, 0); };
    if (!await(ready, std::chrono::seconds(60))) throw std::runtime_error("not connected: " + id);
    return client;
}

// From one client to another, every QoS in turn; each message is ticked off as it comes.
Result messages(double scale) {
    const long total = scaled(1'000'000, scale);
    Broker broker;
    const auto sender = connected(broker.address(), "sender");
    const auto receiver = connected(broker.address(), "receiver");
    const auto seen =
        std::make_unique<std::atomic<unsigned char>[]>(static_cast<std::size_t>(total));
    std::atomic<long> received{0}, doubled{0}, begun{0};
    receiver->Subscribe(
        [&](MQTTClient_message* message, const std::string&) {
            const std::string text(static_cast<const char*>(message->payload),
                                   static_cast<std::size_t>(message->payloadlen));
            const long number = std::stol(text.substr(text.find(':') + 1));
            if (number < 0) {
                ++begun;
                return;
            }
            if (seen[static_cast<std::size_t>(number)]++ != 0) ++doubled;
            ++received;
        },
        "load", 2);
    await([&] { return sender->PublishMessage(R"({"n":-1})", "load", 1, 0, 0) && begun > 0; });
    Watch watch(total);
    const Clock clock;
    long refused = 0;
    for (long i = 0; i < total; ++i) {
        const std::string payload = R"({"n":)" + std::to_string(i) + "}";
        if (!sender->PublishMessage(payload, "load", static_cast<int>(i % 3), 0, 0)) ++refused;
        if (i % 1000 == 0) await([&] { return i - received < 4000; });
        watch.at(i + 1);
    }
    await([&] { return received + refused >= total; });
    Result result{received == total && doubled == 0, rate(received, clock.seconds(), "messages")};
    result.what += ", " + std::to_string(total - received) + " lost, " +
                   std::to_string(doubled.load()) + " doubled";
    watch.end(result, kPoolThreads);
    return result;
}

Result tasks(double scale) {
    const long total = scaled(1'000'000, scale);
    Watch watch(total);
    const Clock clock;
    std::atomic<long> done{0};
    {
        kel::ThreadPool pool;
        for (long i = 0; i < total; ++i) {
            while (!pool.tryStart([&] { ++done; }, std::chrono::milliseconds(100))) continue;
            watch.at(i + 1);
        }
        pool.stop();
    }
    Result result{done == total, rate(done, clock.seconds(), "tasks")};
    watch.end(result, 0);
    return result;
}

// One client: a new connection for every hundred requests. A server may close an idle one at any
// time; such a request is made again.
void request(const Poco::Net::SocketAddress& address, long count, std::atomic<long>& answered,
             std::atomic<long>& again) {
    std::unique_ptr<Poco::Net::HTTPClientSession> session;
    for (long i = 0; i < count;) {
        if (i % 100 == 0 || !session) {
            session = std::make_unique<Poco::Net::HTTPClientSession>(address);
            session->setKeepAlive(true);
            session->setTimeout({60, 0});
        }
        try {
            Poco::Net::HTTPRequest get("GET", "/n?n=" + std::to_string(i), "HTTP/1.1");
            session->sendRequest(get);
            Poco::Net::HTTPResponse response;
            std::istream& body = session->receiveResponse(response);
            const std::string text{std::istreambuf_iterator<char>(body), {}};
            if (response.getStatus() == 200 && text == "{\"n\":\"" + std::to_string(i) + "\"}") {
                ++answered;
            }
            ++i;
        } catch (const Poco::Exception&) {
            session.reset();
            ++again;
        }
        if (again > 10 * count) return;
    }
}

Result requests(double scale) {
    constexpr int kConnections = 64;
    const long each = scaled(200'000, scale) / kConnections, total = each * kConnections;
    const auto api = kel::WebApiBasic::instance();
    api->apiRegist("/n", [](auto&, auto&, const auto& params, auto& result) {
        result.set("n", params.at("n"));
    });
    const Poco::Net::ServerSocket socket(Poco::Net::SocketAddress("127.0.0.1", 0));
    Watch watch(total);
    const Clock clock;
    std::atomic<long> answered{0}, again{0};
    api->start(socket);
    std::jthread clients([&] {
        onThreads(kConnections, [&](int) { request(socket.address(), each, answered, again); });
    });
    await([&] { return answered >= total / 10; }, std::chrono::seconds(300));
    watch.at(total / 10);
    clients.join();
    Result result{answered == total, rate(answered, clock.seconds(), "requests")};
    result.what += " over 64 connections, " + std::to_string(again.load()) + " made again";
    api->stop();
    watch.end(result, kPoolThreads);
    return result;
}

// Every thread numbers its lines; the files must have each thread's lines whole and in order.
Result logLines(double scale) {
    constexpr int kThreads = 8, kSetups = 50;
    const long each = scaled(10'000'000, scale) / kThreads, total = each * kThreads;
    ::dup2(::open("/dev/null", O_WRONLY), STDERR_FILENO);
    kel::loadLogging();
    Watch watch(total);
    const Clock clock;
    std::atomic<long> written{0};
    std::jthread writers([&] {
        onThreads(kThreads, [&](int thread) {
            Poco::Logger& logger = Poco::Logger::get(kel::logName());
            for (long i = 0; i < each; ++i, ++written) {
                logger.information("line " + std::to_string(thread) + " " + std::to_string(i),
                                   __FILE__, __LINE__);
            }
        });
    });
    for (int i = 1; i <= kSetups; ++i) {
        await([&] { return written >= total / kSetups * i; }, std::chrono::seconds(60));
        watch.at(written);
        kel::loadLogging();
    }
    writers.join();
    kel::deleteLogger();
    std::vector<long> next(kThreads, 0);
    long wrong = 0;
    for (const auto& file : std::filesystem::recursive_directory_iterator(::getenv("HOME"))) {
        if (file.path().extension() != ".log") continue;
        std::ifstream in(file.path());
        for (std::string line; std::getline(in, line);) {
            const std::size_t at = line.rfind(":line ");
            if (at == line.npos) continue;
            std::istringstream numbers(line.substr(at + 6));
            std::size_t thread = 0;
            long number = -1;
            numbers >> thread >> number;
            if (next.at(thread)++ != number) ++wrong;
        }
    }
    long found = 0;
    for (const long count : next) found += count;
    Result result{found == total && wrong == 0, rate(found, clock.seconds(), "lines")};
    result.what +=
        ", " + std::to_string(total - found) + " lost, " + std::to_string(wrong) + " out of order";
    watch.end(result, 0);
    return result;
}

// A client takes a second to make, so that many are made at the same time.
Result clients(double scale) {
    const long total = scaled(10'000, scale);
    Broker broker;
    connected(broker.address(), "first");  // what the first one starts stays
    std::atomic<long> done{0}, next{0}, failed{0};
    Watch watch(total);
    const Clock clock;
    onThreads(100, [&](int) {
        for (long i = next++; i < total; i = next++) {
            try {
                connected(broker.address(), "client" + std::to_string(i))->Disconnect();
            } catch (const std::exception&) {
                ++failed;
            }
            if (++done == total / 10) watch.at(done);
        }
    });
    Result result{failed == 0, rate(done, clock.seconds(), "clients")};
    result.what += " made, connected and released, " + std::to_string(failed.load()) + " failed";
    watch.end(result, kPoolThreads + kMqttThreads);
    return result;
}

// Brokers that end each session after a random time, under traffic. What was confirmed has come.
Result restarts(double scale) {
    constexpr int kPairs = 40;
    const long each = std::max(2L, scaled(2000, scale) / kPairs), total = each * kPairs;
    Watch watch(total);
    const Clock clock;
    std::atomic<long> ends{0}, confirmed{0}, arrived{0}, stuck{0};
    onThreads(kPairs, [&](int pair) {
        SmallBroker broker;
        std::mt19937 random(static_cast<unsigned>(pair));
        std::atomic<long> delivered{0};
        const auto client =
            MqttClient::createInstance(broker.address(), "c" + std::to_string(pair), "", "");
        client->SetDeliveryCompleteCallback([&](int) { ++delivered; });
        client->Connect(kAlways, kAlways);
        long number = 0;
        for (long i = 0; i <= each; ++i) {
            const long until = number + 5 + static_cast<long>(random() % 200);
            const bool up = await(
                [&] {
                    while (number < until &&
                           client->PublishMessage("{\"n\":" + std::to_string(number) + "}", "t", 1,
                                                  0, 0)) {
                        ++number;
                    }
                    return number >= until;
                },
                std::chrono::seconds(60));
            if (!up) {
                ++stuck;
                break;
            }
            if (i == each) break;
            broker.drop();
            watch.at(++ends);
        }
        client->Disconnect();
        confirmed += delivered;
        arrived += broker.count();
        if (delivered > broker.count()) ++stuck;
    });
    Result result{stuck == 0 && ends == total && confirmed <= arrived,
                  rate(ends, clock.seconds(), "sessions ended by the broker")};
    result.what += ", " + std::to_string(stuck.load()) + " clients stayed away; " +
                   std::to_string(confirmed.load()) + " messages confirmed, all of which came";
    watch.end(result, kPoolThreads + kPairs + kMqttThreads);
    return result;
}

}  // namespace

std::vector<Case> loadCases() {
    return {{"load", "messages", messages, 900}, {"load", "tasks", tasks},
            {"load", "requests", requests, 900}, {"load", "log lines", logLines, 900},
            {"load", "clients", clients, 900},   {"load", "broker restarts", restarts, 900}};
}

}  // namespace soak
