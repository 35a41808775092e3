#pragma once

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Message.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

/// Collects what the library logs while it exists. Only for tests that do not set the library's
/// logger up: without one, lines go to POCO's root logger, whose channel this is.
class CapturedLog {
public:
    CapturedLog();
    ~CapturedLog();

    /// Waits until `count` lines contain `text`.
    /// @return false if 20 s have passed first; the lines so far are printed then.
    bool await(const std::string& text, std::size_t count = 1);

    /// Lines so far that contain `text` ("" for all).
    std::size_t count(const std::string& text) const;

    /// The first message so far whose text contains `text`, but for `earlier` ones; an empty one if
    /// there is none.
    Poco::Message find(const std::string& text, std::size_t earlier = 0) const;

private:
    struct Collector;
    Poco::AutoPtr<Collector> _collector;
};
