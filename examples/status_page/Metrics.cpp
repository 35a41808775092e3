#include "Metrics.h"

#include <Poco/String.h>
#include <common/ThreadPool.h>

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
    const auto gauge = Metric::kGauge;
    return {
        {"kelcommon_pool_tasks", "Tasks that wait or run in the default pool.", gauge,
         static_cast<double>(pool.pendingTasks())},
        {"kelcommon_pool_threads", "Threads of the default pool.", gauge,
         static_cast<double>(pool.allocated())},
        {"kelcommon_pool_threads_used", "Threads of the default pool that run a task.", gauge,
         static_cast<double>(pool.used())},
        {"kelcommon_pool_threads_limit", "Most threads that the default pool may have.", gauge,
         static_cast<double>(pool.capacity())},
    };
}

}  // namespace status_page
