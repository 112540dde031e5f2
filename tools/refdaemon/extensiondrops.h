#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace lumo::refdaemon {

// Where the package's lumo-es writes its metrics when told to
// (LUMO_METRICS_FILE): the folder Debian's prometheus-node-exporter reads.
inline constexpr const char* kDefaultMetricsFile =
    "/var/lib/prometheus/node-exporter/lumo-es.prom";

// The samples of a Prometheus text that count what the extension lost:
// names with "drop" or "overflow" in them, with their labels, in order.
std::vector<std::pair<std::string, uint64_t>> dropSamples(std::string_view prometheusText);

}  // namespace lumo::refdaemon
