#include "support/capture_sink.h"

namespace lumo::testing {

CaptureSink::CaptureSink(bool debug) {
  tarvex::itx::log::setDebugEnabled(debug);
  tarvex::itx::log::setSink(this);
}

CaptureSink::~CaptureSink() {
  tarvex::itx::log::setSink(nullptr);
  tarvex::itx::log::setDebugEnabled(false);
}

void CaptureSink::write(const tarvex::itx::log::LogObject& log, tarvex::itx::log::LogType type,
                        std::string_view line) {
  std::lock_guard<std::mutex> lock(mutex_);
  lines_.push_back({log.subsystem, log.category, type, std::string(line)});
}

std::vector<LogLine> CaptureSink::lines() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return lines_;
}

std::vector<LogLine> CaptureSink::matching(const std::string& part) const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<LogLine> found;
  for (const LogLine& line : lines_) {
    if (line.text.find(part) != std::string::npos) found.push_back(line);
  }
  return found;
}

void CaptureSink::clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  lines_.clear();
}

}  // namespace lumo::testing
