#pragma once

#include <chrono>
#include <functional>
#include <string>

// What can be told of a broker without connecting to it. Names are resolved by the system, whose
// own time-outs come on top of the bounds below. Threads: any; nothing is shared between calls.
namespace kel {

/// Whether the host in a server's URI answers a ping; must not throw.
using PingHost = std::function<bool(const std::string& serverUri)>;

/// Whether the host in `serverUri` is up: the broker's port accepts or refuses a TCP connection at
/// any of the host's addresses, or the host answers `ping`. The port comes first, since a ping
/// takes a right that not every process has and firewalls drop it; the host is pinged only where
/// the port does not answer at once.
/// Returns at the first answer; without one after about 2 s and what the ping takes. Never throws.
bool brokerHostAnswers(const std::string& serverUri, const PingHost& ping);

/// Whether the broker's port refuses a TCP connection at every address of the host, `patience` at
/// the longest; false as soon as one accepts. For use before a connect where the system tells Paho
/// of a refusal only after the whole connect time-out (Windows). A broker that accepts sees a
/// connection that is closed at once. Never throws.
bool brokerPortRefuses(const std::string& serverUri, std::chrono::milliseconds patience);

}  // namespace kel
