#include "Metrics.h"

#include <Poco/String.h>
#include <common/ThreadPool.h>
#include <common/WebApiBasic.h>

#include <limits>
#include <sstream>

namespace status_page {

namespace {

std::string escaped(std::string text) {
    Poco::replaceInPlace(text, "\\", "\\\\");
    Poco::replaceInPlace(text, "\n", "\\n");
    return text;
}

std::string labelsText(const Metric::Labels& labels) {
    std::string text;
    for (const auto& [name, value] : labels) {
        text += (text.empty() ? "{" : ",") + name + "=\"" +
                Poco::replace(escaped(value), "\"", "\\\"") + "\"";
    }
    return text.empty() ? text : text + "}";
}

}  // namespace

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

std::vector<Metric> libraryMetrics() {
    kel::ThreadPool& pool = kel::ThreadPool::defaultPool();
    const kel::HttpStatistics http = kel::WebApiBasic::instance()->statistics();
    const auto gauge = Metric::kGauge, counter = Metric::kCounter;
    const auto number = [](auto count) { return static_cast<double>(count); };
    const std::string replies = "kelcommon_http_replies_total";
    const std::string repliesHelp = "Replies of the web API by class of their status.";
    return {
        {"kelcommon_http_connections", "Connections to the web API that are served.", gauge,
         number(http.connections)},
        {"kelcommon_http_queued", "Connections that wait for a thread.", gauge,
         number(http.queued)},
        {"kelcommon_http_refused_total", "Connections refused as being in excess.", counter,
         number(http.refused)},
        {"kelcommon_http_requests_total", "Requests to the web API.", counter,
         number(http.requests)},
        {replies, repliesHelp, counter, number(http.status2xx), {{"status", "2xx"}}},
        {replies, repliesHelp, counter, number(http.status3xx), {{"status", "3xx"}}},
        {replies, repliesHelp, counter, number(http.status4xx), {{"status", "4xx"}}},
        {replies, repliesHelp, counter, number(http.status5xx), {{"status", "5xx"}}},
        {"kelcommon_pool_tasks", "Tasks that wait or run in the default pool.", gauge,
         number(pool.pendingTasks())},
        {"kelcommon_pool_threads", "Threads of the default pool.", gauge, number(pool.allocated())},
        {"kelcommon_pool_threads_used", "Threads of the default pool that run a task.", gauge,
         number(pool.used())},
        {"kelcommon_pool_threads_limit", "Most threads that the default pool may have.", gauge,
         number(pool.capacity())},
    };
}

}  // namespace status_page
