// One client's messages to and from a broker of its own on loopback, beside Paho used bare and
// beside libmosquitto.

#include <Poco/ThreadPool.h>
#include <mosquitto.h>

#include <array>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <set>
#include <thread>

#include "MqttPeers.h"
#include "Rounds.h"

namespace {

using namespace bench;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr long kMessages = 10'000;
constexpr long kFewMessages = 1'000;  // where one side takes ten milliseconds for each
constexpr long kSynchronous = 20;
constexpr std::size_t kPayloadBytes = 100;

double secondsSince(Clock::time_point begin) {
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

// Looks every tenth of a millisecond, since some jobs take only a few.
template <typename Condition>
void awaitShort(Condition&& condition, const char* what) {
    const auto deadline = Clock::now() + std::chrono::seconds(60);
    while (!condition()) {
        check(Clock::now() < deadline, what);
        std::this_thread::sleep_for(100us);
    }
}

// JSON of 100 bytes; `number` is -1 in a message that only looks whether a subscription is live.
std::string payloadFor(long number) {
    const std::string digits = std::to_string(number);
    std::string text = R"({"n":)" + std::string(8 - digits.size(), ' ') + digits + R"(,"text":")";
    text.append(kPayloadBytes - text.size() - 2, '0');
    return text + R"("})";
}

// A payload, or the text of its number alone, as a JSON handler is told it.
long numberIn(std::string_view text) {
    if (text.starts_with('{')) text = text.substr(5, 8);
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    long number = -2;
    std::from_chars(text.data(), text.data() + text.size(), number);
    return number;
}

// What a subscriber has got since reset(). Handlers may call it from several threads.
class Receiver {
public:
    void reset() {
        _sum = 0;
        _count = 0;
    }

    Peer::Handler handler() {
        return [this](std::string_view payload) { take(numberIn(payload)); };
    }

    bool isLive() const { return _live; }
    long count() const { return _count; }

    void checkAll(long messages) const {
        check(_count == messages && _sum == messages * (messages - 1) / 2,
              "not every message has arrived once");
    }

    /// Of the messages from `first` on, in microseconds.
    std::vector<double> delays(const std::vector<Clock::time_point>& sent) const {
        std::vector<double> result;
        for (std::size_t i = 0; i < sent.size(); ++i) {
            result.push_back(
                std::chrono::duration<double, std::micro>(_arrived.at(i) - sent[i]).count());
        }
        return result;
    }

private:
    void take(long number) {
        const auto now = Clock::now();
        if (number < 0) {
            _live = true;
            return;
        }
        _arrived.at(static_cast<std::size_t>(number)) = now;
        _sum += number;
        ++_count;
    }

    std::vector<Clock::time_point> _arrived{static_cast<std::size_t>(kMessages)};
    std::atomic<long> _sum{0};
    std::atomic<long> _count{0};
    std::atomic<bool> _live{false};
};

// A peer that has subscribed its own topic.
struct Subscriber {
    Subscriber(PeerPtr own, int qos) : peer(std::move(own)) {
        peer->subscribe(receiver->handler(), qos);
        awaitShort(
            [&] {
                peer->publish(peer->topic, payloadFor(-1), 0);
                return receiver->isLive();
            },
            "the subscription does not become live");
    }

    std::unique_ptr<Receiver> receiver = std::make_unique<Receiver>();
    PeerPtr peer;
};

std::string at(int qos) {
    return "QoS " + std::to_string(qos) + " ";
}

double untilConfirmed(Peer& peer, int qos, long messages) {
    const long before = peer.confirmed;
    const auto begin = Clock::now();
    for (long i = 0; i < messages; ++i) peer.publish(peer.topic, payloadFor(i), qos);
    awaitShort([&] { return peer.confirmed == before + messages; }, "not all is confirmed");
    return static_cast<double>(messages) / secondsSince(begin);
}

double endToEnd(Subscriber& subscriber, int qos) {
    Receiver& receiver = *subscriber.receiver;
    receiver.reset();
    const auto begin = Clock::now();
    for (long i = 0; i < kMessages; ++i) {
        subscriber.peer->publish(subscriber.peer->topic, payloadFor(i), qos);
    }
    awaitShort([&] { return receiver.count() >= kMessages; }, "not all has arrived");
    const double seconds = secondsSince(begin);
    receiver.checkAll(kMessages);
    return static_cast<double>(kMessages) / seconds;
}

// `witness` tells that what was published has gone out.
double publishOnly(Peer& peer, Subscriber& witness) {
    witness.receiver->reset();
    const auto begin = Clock::now();
    for (long i = 0; i < kMessages; ++i) peer.publish(witness.peer->topic, payloadFor(i), 0);
    const double seconds = secondsSince(begin);
    awaitShort([&] { return witness.receiver->count() >= kMessages; }, "not all has arrived");
    witness.receiver->checkAll(kMessages);
    return static_cast<double>(kMessages) / seconds;
}

double besideQos0(Peer& peer) {
    const std::jthread other([&](const std::stop_token& stop) {
        while (!stop.stop_requested()) peer.publish("bench/beside", payloadFor(0), 0);
    });
    return untilConfirmed(peer, 1, kFewMessages);
}

// @return median and ninth decile, in microseconds.
std::vector<double> delays(Peer& sender, Subscriber& subscriber, int qos, std::size_t burst) {
    constexpr std::size_t kSamples = 300;
    subscriber.receiver->reset();
    std::vector<Clock::time_point> sent;
    while (sent.size() < kSamples) {
        for (std::size_t i = 0; i < burst; ++i) {
            const std::string payload = payloadFor(static_cast<long>(sent.size()));
            sent.push_back(Clock::now());
            sender.publish(subscriber.peer->topic, payload, qos);
        }
        awaitShort([&] { return subscriber.receiver->count() == static_cast<long>(sent.size()); },
                   "not all has arrived");
        std::this_thread::sleep_for(1ms);
    }
    const std::vector<double> all = subscriber.receiver->delays(sent);
    return {quantile(all, 0.5), quantile(all, 0.9)};
}

// Topics that have been heard of. Handlers may call it from several threads.
class Heard {
public:
    void add(const std::string& topic) {
        const std::lock_guard<std::mutex> lock(_mutex);
        _topics.insert(topic);
    }
    bool all(const std::vector<std::string>& topics) const {
        const std::lock_guard<std::mutex> lock(_mutex);
        return std::all_of(topics.begin(), topics.end(),
                           [&](const auto& topic) { return _topics.contains(topic); });
    }

private:
    mutable std::mutex _mutex;
    std::set<std::string> _topics;
};

using Connect = std::function<Connection()> (*)(const Broker&, const std::vector<std::string>&,
                                                const TopicHandler&);

double connectsPerSecond(const Broker& broker, Peer& sender, Connect connect) {
    constexpr std::size_t kFilters = 300;
    const auto heard = std::make_shared<Heard>();
    std::vector<std::string> filters, some;
    for (std::size_t i = 0; i < kFilters; ++i) filters.push_back("filter/" + std::to_string(i));
    for (std::size_t i = 0; i < kFilters; i += 13) some.push_back(filters[i]);  // 299 among them
    const auto begins =
        connect(broker, filters, [heard](const std::string& topic) { heard->add(topic); });
    const auto publishTo = [&](const std::vector<std::string>& topics) {
        for (const std::string& topic : topics) sender.publish(topic, "{}", 0);
        return heard->all(topics);
    };
    const auto begin = Clock::now();
    const Connection connection = begins();
    awaitShort([&] { return publishTo(some); }, "the subscriptions do not become live");
    const double seconds = secondsSince(begin);
    publishTo(filters);
    awaitShort([&] { return heard->all(filters); }, "not every filter is live");
    return 1 / seconds;
}

void publishing(const Rounds& rounds, const Broker& broker) {
    const PeerPtr ours = kelClient(broker, "ours"), window = pahoWithWindow(broker, "window"),
                  atOnce = pahoSendingAtOnce(broker, "at once"),
                  bare = pahoSynchronous(broker, "synchronous"),
                  mosquitto = mosquittoClient(broker, "mosquitto");
    const auto job = [](const PeerPtr& peer, int qos, long messages) {
        return [&peer, qos, messages] { return std::vector{untilConfirmed(*peer, qos, messages)}; };
    };
    for (const int qos : {1, 2}) {
        rounds.contest(at(qos) + "until confirmed", {"messages/s"}, job(ours, qos, kMessages),
                       {{"Paho, window of ten", job(window, qos, kMessages), 1.0},
                        {"the same, Nagle's algorithm off", job(atOnce, qos, kMessages), 0},
                        {"libmosquitto", job(mosquitto, qos, kMessages), qos == 1 ? 0.6 : 0.7},
                        {"Paho, synchronous", job(bare, qos, kSynchronous), 100}});
    }
    rounds.contest("QoS 1 with a QoS 0 publisher beside it", {"messages/s"},
                   [&] { return std::vector{besideQos0(*ours)}; },
                   {{"itself alone", job(ours, 1, kFewMessages), 0.3}});
    Subscriber witness(mosquittoClient(broker, "witness"), 0);
    rounds.contest("QoS 0 publish only", {"messages/s"},
                   [&] { return std::vector{publishOnly(*ours, witness)}; },
                   {{"Paho", [&] { return std::vector{publishOnly(*window, witness)}; }, 0.95},
                    {"the same, Nagle's algorithm off",
                     [&] { return std::vector{publishOnly(*atOnce, witness)}; }, 0}});
}

void endToEnd(const Rounds& rounds, const Broker& broker) {
    const auto job = [](Subscriber& subscriber, int qos) {
        return [&subscriber, qos] { return std::vector{endToEnd(subscriber, qos)}; };
    };
    for (const int qos : {1, 2}) {
        Subscriber ours(kelClient(broker, "ours"), qos),
            other(mosquittoClient(broker, "other"), qos);
        rounds.contest(at(qos) + "end to end, raw handler", {"messages/s"}, job(ours, qos),
                       {{"libmosquitto", job(other, qos), qos == 1 ? 0.6 : 0.7}});
    }
    Subscriber window(pahoWithWindow(broker, "window"), 0),
        other(mosquittoClient(broker, "other"), 0);
    for (const auto handing : {Handing::kRaw, Handing::kJson}) {
        Subscriber ours(kelClient(broker, "ours", handing), 0);
        const std::string kind = handing == Handing::kRaw ? "raw" : "JSON";
        rounds.contest("QoS 0 end to end, " + kind + " handler", {"messages/s"}, job(ours, 0),
                       {{"Paho, POCO's parser and pool", job(window, 0), 1.5},
                        {"libmosquitto that counts", job(other, 0), 0.6}});
    }
}

void delaying(const Rounds& rounds, const Broker& broker) {
    const PeerPtr sender = mosquittoClient(broker, "sender");
    for (const int qos : {0, 1}) {
        Subscriber ours(kelClient(broker, "ours"), qos),
            other(mosquittoClient(broker, "other"), qos),
            counting(pahoWithWindow(broker, "counting", Handing::kRaw), qos),
            parsing(pahoWithWindow(broker, "parsing"), qos);
        for (const std::size_t burst : {1, 10}) {
            const auto job = [&sender, qos, burst](Subscriber& subscriber) {
                return [&, qos, burst] { return delays(*sender, subscriber, qos, burst); };
            };
            rounds.contest("delay at " + at(qos) + (burst == 1 ? "alone" : "in bursts of ten"),
                           {"p50, us", "p90, us"}, job(ours),
                           {{"libmosquitto", job(other), 1.4},
                            {"Paho that counts", job(counting), 0},
                            {"Paho, POCO's parser and pool", job(parsing), 0}},
                           Better::kLower);
        }
    }
}

void connecting(const Rounds& rounds, const Broker& broker) {
    const PeerPtr sender = mosquittoClient(broker, "sender");
    const auto job = [&](Connect connect) {
        return [&, connect] { return std::vector{connectsPerSecond(broker, *sender, connect)}; };
    };
    rounds.contest("connect with 300 filters until the last is live", {"1/s"}, job(kelConnect),
                   {{"libmosquitto, one packet", job(mosquittoConnect), 0.5}});
}

}  // namespace

int main(int argc, char** argv) {
    mosquitto_lib_init();
    return run(argc, argv, [](const Rounds& rounds) {
        for (const bool noDelay : {true, false}) {
            const Broker broker(Broker::Login::kAnonymous, "", noDelay);
            rounds.table(std::string("MQTT, broker ") + (noDelay ? "with" : "without") +
                             " `set_tcp_nodelay true`",
                         "JSON of 100 bytes.");
            publishing(rounds, broker);
            endToEnd(rounds, broker);
            delaying(rounds, broker);
            connecting(rounds, broker);
        }
    });
}
