#include "Broker.h"

#include <Poco/Net/ServerSocket.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <thread>
#include <vector>

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

// Its own word for it: on a port that was taken meanwhile another broker would answer.
bool isRunning(const std::string& log) {
    std::ifstream in(log);
    for (std::string line; std::getline(in, line);) {
        if (line.size() > 8 && line.compare(line.size() - 8, 8, " running") == 0) return true;
    }
    return false;
}

}  // namespace

int freePort() {
    return Poco::Net::ServerSocket(Poco::Net::SocketAddress("127.0.0.1", 0)).address().port();
}

Broker::Broker(Login login) : _login(login) {
    char folder[] = "/tmp/kel-broker-XXXXXX";
    _folder = ::mkdtemp(folder);
    start();
}

Broker::~Broker() {
    kill();
    std::filesystem::remove_all(_folder);
}

std::string Broker::address() const {
    return "tcp://127.0.0.1:" + std::to_string(_port);
}

void Broker::start() {
    if (_port != 0) {
        if (!tryStart()) throw std::runtime_error("mosquitto did not come back");
        return;
    }
    for (int attempt = 0; attempt < 5; ++attempt) {
        _port = freePort();
        if (tryStart()) return;
    }
    throw std::runtime_error("mosquitto did not start");
}

bool Broker::tryStart() {
    const std::string config = _folder + "/mosquitto.conf";
    const std::string log = _folder + "/mosquitto.log";
    std::filesystem::remove(log);
    std::ofstream out(config);
    out << "listener " << _port << " 127.0.0.1\nlog_dest file " << log << "\n"
        << "max_queued_messages 0\nset_tcp_nodelay true\nuser root\n";
    if (_login == Login::kAnonymous) {
        out << "allow_anonymous true\n";
    } else {
        const std::string passwords = _folder + "/passwords";
        int status = 0;
        ::waitpid(spawn({"mosquitto_passwd", "-c", "-b", passwords, "edge", "secret"}), &status, 0);
        out << "allow_anonymous false\npassword_file " << passwords << "\n";
    }
    out.close();
    _pid = spawn({"mosquitto", "-c", config});
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (std::chrono::steady_clock::now() < deadline) {
        if (isRunning(log)) return true;
        if (::waitpid(_pid, nullptr, WNOHANG) == _pid) break;  // the port was taken meanwhile
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    _pid = -1;
    return false;
}

void Broker::kill() {
    if (_pid < 0) return;
    ::kill(_pid, SIGKILL);
    ::waitpid(_pid, nullptr, 0);
    _pid = -1;
}

void Broker::suspend() {
    ::kill(_pid, SIGSTOP);
}

void Broker::resume() {
    ::kill(_pid, SIGCONT);
}

void Broker::publish(const std::string& topic, const std::string& payload, int qos,
                     bool retain) const {
    std::vector<std::string> words{"mosquitto_pub",       "-h", "127.0.0.1", "-p",
                                   std::to_string(_port), "-t", topic,       "-q",
                                   std::to_string(qos)};
    if (retain) words.emplace_back("-r");
    if (payload.empty()) {
        words.emplace_back("-n");
    } else {
        words.insert(words.end(), {"-m", payload});
    }
    int status = 0;
    ::waitpid(spawn(words), &status, 0);
    if (status != 0) throw std::runtime_error("mosquitto_pub failed");
}
