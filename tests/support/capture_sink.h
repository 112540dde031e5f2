#pragma once

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

#include "log/logsink.h"

namespace lumo::testing {

struct LogLine {
  std::string subsystem;
  std::string category;
  tarvex::itx::log::LogType type;
  std::string text;
};

// Collects every rendered line while installed; debug levels are on unless
// told otherwise.
class CaptureSink : public tarvex::itx::log::ILogSink {
 public:
  explicit CaptureSink(bool debug = true) {
    tarvex::itx::log::setDebugEnabled(debug);
    tarvex::itx::log::setSink(this);
  }
  ~CaptureSink() override {
    tarvex::itx::log::setSink(nullptr);
    tarvex::itx::log::setDebugEnabled(false);
  }

  void write(const tarvex::itx::log::LogObject& log, tarvex::itx::log::LogType type,
             std::string_view line) override {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.push_back({log.subsystem, log.category, type, std::string(line)});
  }

  std::vector<LogLine> lines() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }
  // How many lines contain `part`.
  size_t count(const std::string& part) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return std::count_if(lines_.begin(), lines_.end(),
                         [&](const LogLine& l) { return l.text.find(part) != std::string::npos; });
  }
  bool contains(const std::string& part) const { return count(part) != 0; }
  void clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.clear();
  }

 private:
  mutable std::mutex mutex_;
  std::vector<LogLine> lines_;
};

}  // namespace lumo::testing
