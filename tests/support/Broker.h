#pragma once

#include <signal.h>

#include <string>

#include "Sandbox.h"

/// A real mosquitto of the test's own on a loopback port that it keeps across restarts. Stopped
/// by the destructor.
class Broker {
public:
    enum class Login { kAnonymous, kPassword };  // kPassword: user "edge", password "secret"

    /// @param listener  further lines for the configuration of its listener.
    /// @param noDelay   without it the broker leaves Nagle's algorithm on, as it does by itself.
    explicit Broker(Login login = Login::kAnonymous, std::string listener = "",
                    bool noDelay = true);
    ~Broker() { kill(); }
    Broker(const Broker&) = delete;
    Broker& operator=(const Broker&) = delete;

    /// "tcp://127.0.0.1:<port>"
    std::string address() const { return "tcp://127.0.0.1:" + std::to_string(_port); }
    int port() const { return _port; }

    /// Starts it and returns once it accepts connections. Throws std::runtime_error if it does not.
    void start();
    /// Ends it at once, as a crash would.
    void kill();
    void restart() { kill(), start(); }
    void suspend() const { ::kill(_pid, SIGSTOP); }
    void resume() const { ::kill(_pid, SIGCONT); }

    /// Publishes with an independent client and waits until that is done.
    void publish(const std::string& topic, const std::string& payload, int qos = 0,
                 bool retain = false) const;

private:
    bool tryStart();

    const TempFolder _folder;
    Login _login;
    const std::string _listener;
    const bool _noDelay;
    int _port = 0;
    pid_t _pid = -1;
};

/// A loopback TCP port that was free a moment ago.
int freePort();
