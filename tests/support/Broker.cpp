#include "Broker.h"

#include <Poco/Net/ServerSocket.h>
#include <spawn.h>
#include <sys/wait.h>

#include <iterator>
#include <stdexcept>
#include <vector>

#include "Await.h"

namespace {

pid_t spawn(std::vector<std::string> words) {
    std::vector<char*> argv;
    for (auto& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawnp(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) {
        throw std::runtime_error("cannot start " + words[0]);
    }
    return pid;
}

void run(const std::vector<std::string>& words) {
    int status = 0;
    ::waitpid(spawn(words), &status, 0);
    if (status != 0) throw std::runtime_error(words[0] + " failed");
}

// Its own word for it: on a port that was taken meanwhile another broker would answer.
bool isRunning(const std::string& log) {
    std::ifstream in(log);
    const std::string text(std::istreambuf_iterator<char>(in), {});
    return text.find(" running\n") != std::string::npos;
}

}  // namespace

int freePort() {
    return Poco::Net::ServerSocket(Poco::Net::SocketAddress("127.0.0.1", 0)).address().port();
}

Broker::Broker(Login login, std::string listener, bool noDelay)
    : _login(login), _listener(std::move(listener)), _noDelay(noDelay) {
    for (int attempt = 0; attempt < 5; ++attempt) {
        _port = freePort();
        if (tryStart()) return;
    }
    throw std::runtime_error("mosquitto did not start");
}

void Broker::start() {
    if (!tryStart()) throw std::runtime_error("mosquitto did not come back");
}

bool Broker::tryStart() {
    const std::string log = _folder.write("mosquitto.log");
    std::string config = "listener " + std::to_string(_port) + " 127.0.0.1\n" + _listener +
                         "log_dest file " + log + "\nmax_queued_messages 0\nset_tcp_nodelay " +
                         (_noDelay ? "true" : "false") + "\nuser root\n";
    if (_login == Login::kAnonymous) {
        config += "allow_anonymous true\n";
    } else {
        const std::string passwords = _folder.write("passwords");
        run({"mosquitto_passwd", "-c", "-b", passwords, "edge", "secret"});
        config += "password_file " + passwords + "\n";
    }
    _pid = spawn({"mosquitto", "-c", _folder.write("mosquitto.conf", config)});
    bool ended = false;  // the port was taken meanwhile
    const bool settled = await([&] {
        ended = ::waitpid(_pid, nullptr, WNOHANG) == _pid;
        return ended || isRunning(log);
    });
    if (ended) _pid = -1;
    if (!settled) kill();
    return _pid > 0;
}

void Broker::kill() {
    if (_pid < 0) return;
    ::kill(_pid, SIGKILL);
    ::waitpid(_pid, nullptr, 0);
    _pid = -1;
}

void Broker::publish(const std::string& topic, const std::string& payload, int qos,
                     bool retain) const {
    std::vector<std::string> words = {"mosquitto_pub",       "-h", "127.0.0.1", "-p",
                                      std::to_string(_port), "-t", topic,       "-q",
                                      std::to_string(qos),   "-m", payload};
    if (retain) words.emplace_back("-r");
    run(words);
}
