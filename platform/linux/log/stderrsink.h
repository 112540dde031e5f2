#pragma once

#include <cstdio>
#include <mutex>
#include <string_view>

#include "log/logsink.h"

namespace tarvex::itx::log::linux_platform {

// Writes each line as is, newline-terminated, to a stdio stream (stderr
// unless told otherwise). Every line is a single stdio call, so it does not
// interleave with other writers of the stream; the sink's own mutex orders
// its callers in a way sanitizers can see (they cannot see stdio's lock).
class StderrSink final : public ILogSink {
 public:
  explicit StderrSink(FILE* out = stderr) : out_(out) {}
  void write(const LogObject& log, LogType type, std::string_view line) override;

 private:
  FILE* const out_;
  std::mutex mutex_;
};

}  // namespace tarvex::itx::log::linux_platform
