#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace kel {

/// What one client may cost a server, and a reply the process that asked for it. Every limit on
/// what comes over HTTP stands here. The number of connections, and how long one may be idle, are
/// the server's Poco::Net::HTTPServerParams: 16 threads, each of which serves one connection, 64
/// connections that wait for a thread, 60 s to the first request, 15 s from one request to the
/// next unless the host says otherwise.
struct HttpLimits {
    /// A request's head (request line and fields), in bytes; status 431 beyond it.
    static constexpr std::size_t kHeadSize = 64 * 1024;
    /// From the first byte of a head to its last; status 408 beyond it.
    static constexpr std::chrono::seconds kHeadTime{10};

    /// A body's sender, and a reply's reader, may keep the server waiting for kGraceTime in all and
    /// another second for every kMinimumRate bytes; beyond it, status 408 for a body, and the
    /// connection is closed.
    static constexpr std::chrono::seconds kGraceTime{10};
    static constexpr std::int64_t kMinimumRate = 1024;

    /// While connections wait for a thread, one that has been idle for kCrowdedIdleTime is closed,
    /// and a head must be complete within kCrowdedHeadTime.
    static constexpr std::chrono::seconds kCrowdedIdleTime{1};
    static constexpr std::chrono::seconds kCrowdedHeadTime{3};

    /// A JSON body, of a request or of a web hook's reply: bytes; levels of nested objects and
    /// arrays; values in all, where each number, text, literal, object and array counts as one.
    /// What is built from a body of that many values takes up to 110 MB (measured: empty objects,
    /// each under a key of 70 bytes; as many numbers take 6 MB), so 16 such requests at a time 1.8
    /// GB.
    static constexpr std::int64_t kJsonSize = 8 * 1024 * 1024;
    static constexpr int kJsonDepth = 128;
    static constexpr std::size_t kJsonValues = 100'000;
};

}  // namespace kel
