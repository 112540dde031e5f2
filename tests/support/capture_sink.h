#pragma once

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

// Collects every rendered line while installed; debug levels are on.
class CaptureSink : public tarvex::itx::log::ILogSink {
 public:
  explicit CaptureSink(bool debug = true);
  ~CaptureSink() override;

  void write(const tarvex::itx::log::LogObject& log, tarvex::itx::log::LogType type,
             std::string_view line) override;

  std::vector<LogLine> lines() const;
  // Lines whose text contains `part`.
  std::vector<LogLine> matching(const std::string& part) const;
  size_t count(const std::string& part) const { return matching(part).size(); }
  bool contains(const std::string& part) const { return count(part) != 0; }
  void clear();

 private:
  mutable std::mutex mutex_;
  std::vector<LogLine> lines_;
};

}  // namespace lumo::testing
