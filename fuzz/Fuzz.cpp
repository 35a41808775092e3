// What comes from outside, as arbitrary bytes. A target must return, and whatever it finds wrong
// ends the process. Built with libFuzzer, which feeds mutations of its corpus to the target that
// the variable KEL_FUZZ_TARGET names; otherwise runs the corpus: Fuzz TARGET FOLDER.

#include <Poco/AutoPtr.h>
#include <Poco/Environment.h>
#include <Poco/Exception.h>
#include <Poco/Logger.h>
#include <Poco/NullChannel.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <iostream>
#include <iterator>
#include <map>
#include <set>
#include <sstream>
#include <thread>

#include "RawHttp.h"
#include "Sandbox.h"
#include "common/Config.h"
#include "common/Utils.h"
#include "common/WebApiBasic.h"
#include "common/WebHookBasic.h"
#include "common/internal/json/ParseObject.h"
#include "common/internal/mqtt/ConnectTurn.h"
#include "common/internal/mqtt/Connection.h"
#include "common/internal/mqtt/Delivery.h"
#include "common/internal/mqtt/Subscriptions.h"
#include "common/internal/mqtt/Topics.h"
#include "common/internal/net/ServerUri.h"

namespace {

void check(bool right, const char* what) {
    if (right) return;
    std::cerr << "wrong: " << what << std::endl;
    std::abort();
}

// To the end of the connection, which comes: the peer knows that nothing more will be sent.
void sendAndReadAll(RawClient peer, const std::string& bytes) {
    char block[4096];
    try {
        peer.send(bytes).shutdownSend();
        while (peer.receiveBytes(block, sizeof block) > 0) continue;
    } catch (const Poco::IOException&) {  // the other side has closed already
    }
}

// What a host may give as a broker's address.
void address(const std::string& input) {
    try {
        const std::string host = kel::hostOfServerUri(input);
        check(host.size() <= input.size(), "a host that nobody named");
        kel::portOfServerUri(input);
    } catch (const Poco::SyntaxException&) {
        // The one way in which a text may be refused.
    }
}

// A configuration file. One that loads is written, and loads again.
std::string store() {
    std::ostringstream text;
    kel::configInstance().save(text);
    return text.str();
}

void configuration(const std::string& input) {
    if (kel::configPath().empty()) kel::loadConfig();
    const std::string before = store();
    std::ofstream(kel::configPath(), std::ios::binary) << input;
    kel::loadConfig();
    if (!kel::lastConfigError().empty()) {
        check(store() == before, "a file that is refused changes the store");
        return;
    }
    const std::string loaded = store();
    try {
        kel::configInstance().getString("a.b", "");
        kel::configInstance().getInt("c[0].d", 0);
    } catch (const Poco::Exception&) {
        // A value of another kind, or one that refers to itself.
    }
    kel::saveConfig();
    kel::loadConfig();
    check(kel::lastConfigError().empty(), "what was saved cannot be loaded");
    check(store() == loaded, "what was saved is loaded as something else");
}

// A message on its way to its handlers. The first byte is the length of the topic.
void readRaw(MQTTClient_message* message, const std::string& topic) {
    const std::string payload(static_cast<const char*>(message->payload),
                              static_cast<std::size_t>(message->payloadlen));
    check(kel::stringToJson(payload), "a handler gets what is no object");
    if (topic.size() % 2 == 0) std::free(std::exchange(message->payload, nullptr));
}

std::shared_ptr<kel::Subscriptions> handlers() {
    const auto write = [](const Poco::JSON::Object& object, const auto&) {
        kel::jsonToString(new Poco::JSON::Object(object));
    };
    const auto fail = [](const auto&, const auto&) { throw Poco::Exception("handler"); };
    const std::map<std::string, kel::SubscribedHandler> each = {
        {"/kelbus/#", {{}, write}}, {"raw", {readRaw, {}}}, {"throws", {{}, fail}}, {"none", {}}};
    auto all = std::make_shared<kel::Subscriptions>();
    for (const auto& [filter, handler] : each)
        all->set(filter, std::make_shared<const kel::SubscribedHandler>(handler));
    return all;
}

void dispatch(const std::string& input) {
    static const auto subscriptions = handlers();
    if (input.empty()) return;
    kel::Message message;
    message.topic = input.substr(1, static_cast<unsigned char>(input[0]));
    message.length = input.size() - 1 - message.topic.size();
    message.payload = kel::Message::copyOf(&input[1 + message.topic.size()], message.length);
    kel::Messaging& messaging = kel::Messaging::instance();
    std::make_shared<kel::Delivery>(messaging, subscriptions, std::move(message))->handOut();
    while (messaging.handlers().statistics().used > 0) std::this_thread::yield();
}

// What a management endpoint sends in reply to a hook. The hook's callback is called in any case.
void hookReply(const std::string& input) {
    static const auto hook = kel::WebHookBasic::createInstance();
    const ScriptedServer endpoint(input);
    const auto called = std::make_shared<std::promise<void>>();
    hook->doHttpRequest(endpoint.url(), [called](auto, Poco::JSON::Object& reply) {
        kel::jsonToString(new Poco::JSON::Object(reply));
        called->set_value();  // throws when it is called twice
    });
    const auto end = called->get_future().wait_for(std::chrono::seconds(30));
    check(end == std::future_status::ready, "the callback is not called");
}

// JSON text to an object and back. What was written once is read again as the same.
void json(const std::string& input) {
    const Poco::JSON::Object::Ptr object = kel::stringToJson(input);
    if (!object) {
        const kel::TextPlace place = kel::placeOfJsonError(input);
        check(place.line >= 1 && place.column >= 1, "the place of the fault");
        return;
    }
    const std::string written = kel::jsonToString(object);
    const Poco::JSON::Object::Ptr again = kel::stringToJson(written);
    check(again, "what was written cannot be read");
    check(kel::jsonToString(again) == written, "what was written is read as something else");
}

// Bytes from a broker to a client that connects, and may publish; one client for all inputs. The
// first byte says whether the broker accepts the connection before it sends the rest and closes,
// and whether it waits for the client's message before that.
constexpr int kAccepts = 1;
constexpr int kClientSends = 3;

struct Client : kel::ConnectionEvents {
    void messageArrived(kel::Message message, bool) override {
        check(message.payload != nullptr, "a message without payload");
    }
    void messageDelivered(int) override {}
    void sessionLost(const std::string&) override { lost.set_value(); }
    std::promise<void> lost;
};

// What an earlier broker sent too much may have told the client that it is accepted, so that its
// message comes together with its CONNECT.
void converse(RawClient client, const std::string& input, bool awaitsMessage) {
    const std::string connack("\x20\x02\x00\x00", (input[0] & kAccepts) != 0 ? 4 : 0);
    char block[4096] = {};
    int received = client.receiveBytes(block, sizeof block);
    const int connect = 2 + block[1];
    if (!awaitsMessage) return sendAndReadAll(client, connack + input.substr(1));
    client.send(connack);
    for (int more = 1; more > 0 && received <= connect; received += more)
        more = client.receiveBytes(block, sizeof block);
    sendAndReadAll(client, input.substr(1));
}

void peer(const std::string& input) {
    static Poco::Net::ServerSocket server(Poco::Net::SocketAddress("127.0.0.1", 0));
    static kel::Messaging& running = kel::Messaging::instance();
    static const kel::ConnectOptions options{
        "tcp://" + server.address().toString(), "fuzz", "", "", {}};
    static int rc = 0;
    static const auto connection = kel::Connection::create(options, rc);
    if (input.empty()) return;
    const bool sends = (input[0] & kClientSends) == kClientSends;
    // Each connection gets the same: a refused client may try again with an older protocol.
    const std::jthread broker([&](const std::stop_token& stop) {
        while (!stop.stop_requested())
            if (server.poll({0, 1000}, Poco::Net::Socket::SELECT_READ))
                converse(RawClient(server.acceptConnection()), input, sends);
    });
    const auto client = std::make_shared<Client>();
    const kel::ConnectTurn turn(0, [] { return running.stopped(); });
    rc = connection->connect(options, client);
    check(rc == 0 || input != std::string(1, kAccepts), "no connection at all");
    if (rc != 0) return;
    if (sends) connection->publish("{}", "topic", 2, 0);
    const auto end = client->lost.get_future().wait_for(std::chrono::seconds(30));
    check(end == std::future_status::ready, "the loss is not told");
}

// Bytes that a client sends to the web API. The server must answer or close; it goes on.
Poco::UInt16 serve() {
    const Poco::Net::ServerSocket socket(Poco::Net::SocketAddress("127.0.0.1", 0));
    const auto api = kel::WebApiBasic::instance();
    api->apiRegist("/plain", [](auto& request, auto& response, const auto& params) {
        response.send() << request.getMethod() << params.size() << request.stream().rdbuf();
    });
    api->apiRegist("/json", [](auto&, auto&, const auto& params, auto& result) {
        for (const auto& [name, value] : params) result.set(name, value);
    });
    api->apiRegist("/body", [](auto&, auto&, const auto&, auto& result, const auto& body) {
        result.set("size", body.size());
    });
    api->start(socket);
    return socket.address().port();
}

void requests(const std::string& input) {
    static const Poco::UInt16 port = serve();
    sendAndReadAll(RawClient(port), input);
}

// Filters and topics, a line each: the first line is a topic, the others are filters.
void topics(const std::string& input) {
    std::istringstream lines(input);
    std::string topic, line;
    std::getline(lines, topic);
    kel::Subscriptions subscriptions;
    std::set<std::string> filters;
    while (std::getline(lines, line)) {
        if (!kel::topics::isValidFilter(line)) continue;
        subscriptions.set(line, std::make_shared<const kel::SubscribedHandler>());
        filters.insert(line);
    }
    const bool expected =
        filters.contains(topic) || std::any_of(filters.begin(), filters.end(), [&](const auto& f) {
            const std::string stem = kel::topics::stem(f);
            return !stem.empty() && topic.find(stem) != topic.npos;
        });
    check((subscriptions.find(topic) != nullptr) == expected, "who receives a topic");
    check(subscriptions.upTo(subscriptions.mark()).size() == filters.size(), "the filters");
    if (kel::topics::isValidTopic(topic)) {
        check(kel::topics::isValidFilter(topic), "a topic is a filter too");
    }
    for (const auto& filter : filters) check(subscriptions.erase(filter), "erased once");
    check(!subscriptions.find(topic), "nobody is left");
}

const std::map<std::string, void (*)(const std::string& input)> kTargets = {
    {"Address", address},   {"Config", configuration},
    {"Dispatch", dispatch}, {"HookReply", hookReply},
    {"Json", json},         {"Peer", peer},
    {"Request", requests},  {"Topics", topics}};

// Home folders of the process's own, and lines that are formatted and then dropped.
struct Surroundings {
    Surroundings() {
        for (const char* name : {"HOME", "XDG_CONFIG_HOME", "XDG_DATA_HOME"})
            Poco::Environment::set(name, home.path.string());
        Poco::Logger::root().setChannel(Poco::AutoPtr<Poco::Channel>(new Poco::NullChannel));
    }
    TempFolder home;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const Surroundings surroundings;
    static const auto target = kTargets.at(Poco::Environment::get("KEL_FUZZ_TARGET"));
    target({reinterpret_cast<const char*>(data), size});
    return 0;
}

#ifndef KEL_LIBFUZZER
int main(int argc, char** argv) {
    if (argc != 3) return EXIT_FAILURE;
    Poco::Environment::set("KEL_FUZZ_TARGET", argv[1]);
    int files = 0;
    for (const auto& file : std::filesystem::directory_iterator(argv[2])) {
        std::cout << file.path().filename().string() << std::endl;  // the last one is the culprit
        std::ifstream in(file.path(), std::ios::binary);
        const std::string bytes{std::istreambuf_iterator<char>(in), {}};
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
        ++files;
    }
    return files == 0 ? EXIT_FAILURE : EXIT_SUCCESS;
}
#endif
