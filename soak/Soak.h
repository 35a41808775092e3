#pragma once

// What the soak driver's cases share. Each is a test that runs in a process of its own, with home
// folders of its own, and is one row of the table that scripts/soak prints.

#include <Poco/Clock.h>
#include <Poco/Environment.h>
#include <Poco/Logger.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <memory>
#include <mutex>
#include <numeric>
#include <string>
#include <vector>

#include "Await.h"
#include "CapturedLog.h"
#include "common/Library.h"
#include "common/Logger.h"
#include "common/MqttClient++.h"

/// Adds to what the row says of what happened; the parts as a stream writes them.
template <typename... Parts>
void row(const Parts&... parts) {
    ((std::cout << "row: ") << ... << parts) << std::endl;
}

/// The short form's part of a full count, or all of it; 10 at least.
inline long scaled(long full) {
    return std::max(10L, full / std::stol(Poco::Environment::get("KEL_SOAK_SHORTER", "1")));
}

/// How many files and folders are in a folder.
inline long entries(const std::string& folder) {
    const std::filesystem::directory_iterator all(folder);
    return std::distance(begin(all), end(all));
}

/// Memory, threads and descriptors of this process at its construction.
struct Footprint {
    Footprint() {
        ::malloc_trim(0);
        heap = static_cast<long>(::mallinfo2().uordblks / 1024);
        long size = 0;
        std::ifstream("/proc/self/statm") >> size >> resident;
        resident *= ::sysconf(_SC_PAGESIZE) / 1024;
    }

    long heap = 0, resident = 0;  // KiB
    long threads = entries("/proc/self/task"), descriptors = entries("/proc/self/fd");
};

/// Memory at the end of the first tenth of a job beside that at its end, and what else is left.
class Watch {
public:
    explicit Watch(long total) : _total(total) {}

    /// Call it now and then, from any thread; it looks once a tenth of the total is done.
    void at(long done) {
        if (done >= _total / 10) std::call_once(_looked, [&] { _firstTenth = Footprint(); });
    }

    /// Makes the row, and stops the library: threads and descriptors must be as at first then.
    /// @param extraThreads  of pools, which the library may keep until then.
    /// @param what          was counted, and what became of it.
    template <typename... Parts>
    void end(int extraThreads, const Parts&... what) {
        const auto seconds = _start.elapsed() / 1'000'000;
        const Footprint last;
        EXPECT_LE(last.threads, _begin.threads + extraThreads);
        kel::stopLibrary();
        EXPECT_TRUE(await([&] { return Footprint().threads <= _begin.threads; }));
        const Footprint left;
        EXPECT_LE(left.descriptors, _begin.descriptors);
        // What grows with the count shows after the first tenth; an allocator may keep some more.
        EXPECT_LE(last.resident, _firstTenth.resident + _firstTenth.resident / 5 + 4096);
        row(_total, " ", what..., "; in ", seconds, " s; resident ", _firstTenth.resident, " to ",
            last.resident, " KiB, in use ", _firstTenth.heap, " to ", last.heap, " KiB; threads ",
            _begin.threads, " to ", last.threads, ", after the stop ", left.threads,
            "; descriptors ", _begin.descriptors, " to ", left.descriptors);
    }

private:
    const long _total;
    const Poco::Clock _start;
    const Footprint _begin;
    std::once_flag _looked;
    Footprint _firstTenth;
};

/// What is in a file; "" where there is none.
inline std::string contentOf(const std::string& file) {
    std::ifstream in(file);
    return {std::istreambuf_iterator<char>(in), {}};
}

/// Where the library writes log files and configuration.
inline std::string homeFolder() {
    return Poco::Environment::get("XDG_DATA_HOME") + "/kelhost";
}

/// From now on no log line is seen on the console.
inline void silenceConsole() {
    ::dup2(::open("/dev/null", O_WRONLY), STDERR_FILENO);
}

/// Lines that writers, each from one thread, number and log; the files must have those of each
/// writer whole, once and in order.
class LogLines {
public:
    explicit LogLines(std::size_t writers) : _logged(writers, 0) {}

    void log(std::size_t writer, long count) {
        Poco::Logger& logger = Poco::Logger::get(kel::logName());
        const std::string begin = "line " + std::to_string(writer) + " ";
        for (const long end = _logged[writer] + count; _logged[writer] < end; ++_logged[writer])
            logger.information(begin + std::to_string(_logged[writer]), __FILE__, __LINE__);
    }

    /// Whether the files have them; makes the row.
    void expectAllFound() const {
        std::vector<long> found(_logged.size(), 0);
        long wrong = 0;
        for (const auto& file : std::filesystem::directory_iterator(homeFolder()))
            wrong += count(std::ifstream(file.path()), found);
        EXPECT_EQ(_logged, found);
        EXPECT_EQ(0, wrong);
        const auto sum = [](const auto& all) { return std::reduce(all.begin(), all.end()); };
        row(sum(_logged) - sum(found), " of ", sum(_logged), " lines lost, ", wrong,
            " out of order");
    }

private:
    // How many are not the next one of their writer.
    static long count(std::ifstream in, std::vector<long>& found) {
        long wrong = 0, number = 0;
        std::size_t writer = 0;
        for (std::string line; std::getline(in, line);) {
            const std::size_t at = std::min(line.rfind(":line "), line.size());
            if (std::sscanf(&line[at], ":line %zu %ld", &writer, &number) != 2) continue;
            wrong += found.at(writer)++ == number ? 0 : 1;
        }
        return wrong;
    }

    std::vector<long> _logged;  // each element is its writer's
};

/// A client whose connecting has begun.
inline std::shared_ptr<kel::MqttClient> connecting(const std::string& address,
                                                   const std::string& id) {
    const auto always = [](auto&&...) { return true; };
    auto client = kel::MqttClient::createInstance(address, id, "", "");
    client->Connect(always, always);
    return client;
}

/// A client that publishes, and what has become of its messages.
struct Traffic {
    explicit Traffic(const std::string& address) : client(connecting(address, "traffic")) {
        client->SetDeliveryCompleteCallback([this](int) { ++confirmed; });
    }

    bool publish() {
        const bool taken = client->PublishMessage("{}", "t", 1, 0, 0);
        accepted += taken ? 1 : 0;
        return taken;
    }

    /// Publishes until so many are accepted. @return false if the time has passed first.
    bool publish(int count, std::chrono::seconds time) {
        const auto all = [&] {
            while (count > 0 && publish()) --count;
            return count == 0;
        };
        return await(all, time);
    }

    /// Whether a message is confirmed that is published from now on.
    bool flows() {
        const auto again = [this, before = confirmed.load()] {
            publish();
            return confirmed > before;
        };
        return await(again, std::chrono::seconds(90));
    }

    std::atomic<long> confirmed{0};
    long accepted = 0;
    std::shared_ptr<kel::MqttClient> client;
};

/// The first line that tells of a failure, shortened.
inline std::string errorIn(const CapturedLog& log) {
    for (const char* word : {"Failed", "lost", "rror", "xception", "bad_alloc"}) {
        const std::string line = log.find(word).getText();
        if (!line.empty()) return "logged \"" + line.substr(0, 70) + "\"";
    }
    return "nothing logged as failed";
}

/// Traffic before and after a fault.
inline void expectGoesOn(Traffic& traffic, const std::function<void()>& fault) {
    EXPECT_TRUE(traffic.flows()) << "before the fault";
    const CapturedLog log;
    fault();
    EXPECT_TRUE(traffic.flows()) << "did not go on";
    row(errorIn(log), "; ", traffic.accepted, " accepted, ", traffic.confirmed, " confirmed");
}
