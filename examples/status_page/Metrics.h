#pragma once

#include <string>
#include <utility>
#include <vector>

namespace status_page {

/// A number for monitoring, as Prometheus understands it.
struct Metric {
    enum Type { kCounter, kGauge };
    using Labels = std::vector<std::pair<std::string, std::string>>;

    std::string name;  ///< letters, digits and "_"; a counter's ends in "_total"
    std::string help;
    Type type = kCounter;
    double value = 0;
    Labels labels = {};  ///< metrics of one name, with different labels, stand one after another
};

/// The metrics in Prometheus' text format (version 0.0.4).
std::string prometheusText(const std::vector<Metric>& metrics);

/// `{name="value",...}`; "" without labels.
std::string labelsText(const Metric::Labels& labels);

/// What the library counts in this process. Whatever it counts in future is added here, and is then
/// on the page and at "/metrics".
std::vector<Metric> libraryMetrics();

}  // namespace status_page
