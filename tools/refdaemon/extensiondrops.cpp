#include "refdaemon/extensiondrops.h"

#include <charconv>

namespace lumo::refdaemon {

std::vector<std::pair<std::string, uint64_t>> dropSamples(std::string_view text) {
  std::vector<std::pair<std::string, uint64_t>> samples;
  while (!text.empty()) {
    const size_t end = text.find('\n');
    std::string_view line = text.substr(0, end);
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
    if (line.empty() || line.front() == '#') continue;
    // NAME{LABELS} VALUE: the value follows the last space (label values may hold spaces).
    const size_t space = line.rfind(' ');
    if (space == std::string_view::npos) continue;
    const std::string_view series = line.substr(0, space);
    const std::string_view name = series.substr(0, series.find('{'));
    if (name.find("drop") == std::string_view::npos &&
        name.find("overflow") == std::string_view::npos) {
      continue;
    }
    const std::string_view number = line.substr(space + 1);
    uint64_t value = 0;
    const auto [stop, error] = std::from_chars(number.data(), number.data() + number.size(), value);
    if (error != std::errc() || stop != number.data() + number.size()) continue;
    samples.emplace_back(std::string(series), value);
  }
  return samples;
}

}  // namespace lumo::refdaemon
