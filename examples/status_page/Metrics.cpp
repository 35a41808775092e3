#include "Metrics.h"

#include <Poco/String.h>
#include <common/Statistics.h>

#include <cstdint>
#include <limits>
#include <sstream>

namespace status_page {

namespace {

std::string escaped(std::string text) {
    Poco::replaceInPlace(text, "\\", "\\\\");
    Poco::replaceInPlace(text, "\n", "\\n");
    return text;
}

}  // namespace

std::string labelsText(const Metric::Labels& labels) {
    std::string text;
    for (const auto& [name, value] : labels) {
        text += (text.empty() ? "{" : ",") + name + "=\"" +
                Poco::replace(escaped(value), "\"", "\\\"") + "\"";
    }
    return text.empty() ? text : text + "}";
}

std::string prometheusText(const std::vector<Metric>& metrics) {
    std::ostringstream text;
    text.precision(std::numeric_limits<double>::max_digits10);
    std::string last;
    for (const Metric& metric : metrics) {
        if (metric.name != last) {
            text << "# HELP " << metric.name << " " << escaped(metric.help) << "\n# TYPE "
                 << metric.name << (metric.type == Metric::kCounter ? " counter\n" : " gauge\n");
        }
        text << metric.name << labelsText(metric.labels) << " " << metric.value << "\n";
        last = metric.name;
    }
    return text.str();
}

// --- The library's -----------------------------------------------------------------------------

namespace {

// One metric for each value of a label.
template <typename Count>
using Labelled = std::vector<std::pair<std::string, Count>>;

class Metrics {
public:
    void counter(const std::string& name, const std::string& help, std::uint64_t value) {
        add(name, help, Metric::kCounter, value, {});
    }

    void gauge(const std::string& name, const std::string& help, std::uint64_t value) {
        add(name, help, Metric::kGauge, value, {});
    }

    void counters(const std::string& name, const std::string& help, const std::string& label,
                  const Labelled<std::uint64_t>& values) {
        for (const auto& [text, value] : values) {
            add(name, help, Metric::kCounter, value, {{label, text}});
        }
    }

    void pools(const Labelled<kel::PoolStatistics>& pools) {
        for (const auto& [name, pool] : pools) {
            add("pool_threads", "Threads.", Metric::kGauge, pool.threads, {{"pool", name}});
        }
        for (const auto& [name, pool] : pools) {
            add("pool_threads_used", "Threads that run something.", Metric::kGauge, pool.used,
                {{"pool", name}});
        }
        for (const auto& [name, pool] : pools) {
            add("pool_threads_limit", "Most threads that there may be.", Metric::kGauge, pool.limit,
                {{"pool", name}});
        }
    }

    std::vector<Metric> all;

private:
    void add(const std::string& name, const std::string& help, Metric::Type type,
             std::uint64_t value, Metric::Labels labels) {
        all.push_back(
            {"kelcommon_" + name, help, type, static_cast<double>(value), std::move(labels)});
    }
};

Labelled<std::uint64_t> byQos(const kel::MqttStatistics::ByQos& counts) {
    return {{"0", counts[0]}, {"1", counts[1]}, {"2", counts[2]}};
}

void addMqtt(Metrics& to, const kel::MqttStatistics& mqtt) {
    to.counters("mqtt_received_total", "Messages received.", "qos", byQos(mqtt.received));
    to.counters("mqtt_published_total", "Messages accepted for publishing.", "qos",
                byQos(mqtt.published));
    to.counter("mqtt_confirmed_total", "Deliveries confirmed by the broker.", mqtt.confirmed);
    to.counter("mqtt_refused_total", "Publishes that were not accepted.", mqtt.refused);
    to.counter("mqtt_handled_inline_total", "Messages that found the handlers' pool full.",
               mqtt.handledInline);
    to.counter("mqtt_reconnections_total", "Sessions that followed a lost one.",
               mqtt.reconnections);
    to.gauge("mqtt_queue_depth", "Messages that wait to be handed out.", mqtt.queue.depth);
    to.gauge("mqtt_queue_high_water", "The most there have been.", mqtt.queue.highWater);
}

void addHttp(Metrics& to, const kel::HttpStatistics& http) {
    to.gauge("http_connections", "Connections to the web API that are served.", http.connections);
    to.gauge("http_queue_depth", "Connections that wait for a thread.", http.queued);
    to.gauge("http_queue_high_water", "The most that waited while no thread was free.",
             http.mostQueued);
    to.counter("http_refused_total", "Connections refused as being in excess.", http.refused);
    to.counter("http_requests_total", "Requests to the web API.", http.requests);
    to.counters("http_replies_total", "Replies of the web API by class of their status.", "status",
                {{"2xx", http.status2xx},
                 {"3xx", http.status3xx},
                 {"4xx", http.status4xx},
                 {"5xx", http.status5xx}});
}

void addLog(Metrics& to, const kel::LogStatistics& log) {
    to.counter("log_lines_total", "Lines logged.", log.lines);
    to.counter("log_written_total", "Lines written to the file.", log.written);
    to.counters("log_dropped_total", "Lines that an output lost.", "output",
                {{"file", log.droppedByFile}, {"console", log.droppedByConsole}});
    to.gauge("log_queue_bytes", "Lines that wait to be formatted.", log.queueBytes.depth);
    to.gauge("log_queue_high_water_bytes", "The most there have been.", log.queueBytes.highWater);
}

}  // namespace

std::vector<Metric> libraryMetrics() {
    const kel::Statistics library = kel::statistics();
    Metrics metrics;
    addMqtt(metrics, library.mqtt);
    addHttp(metrics, library.http);
    addLog(metrics, library.log);
    metrics.pools({{"default", library.pool},
                   {"handlers", library.mqtt.handlers},
                   {"background", library.mqtt.background}});
    return std::move(metrics.all);
}

}  // namespace status_page
