#include "log/logsink.h"

#include <atomic>
#include <cstdio>
#include <string>

namespace tarvex::itx::log {

namespace {
std::atomic<ILogSink*> gSink{nullptr};
std::atomic<bool> gDebug{false};
}  // namespace

void setSink(ILogSink* sink) { gSink.store(sink); }
void setDebugEnabled(bool enabled) { gDebug.store(enabled, std::memory_order_relaxed); }
bool debugEnabled() { return gDebug.load(std::memory_order_relaxed); }

void write(const LogObject& log, LogType type, std::string_view line) {
  if (ILogSink* sink = gSink.load()) {
    sink->write(log, type, line);
    return;
  }
  std::string text(line);
  if (text.empty() || text.back() != '\n') text.push_back('\n');
  std::fputs(text.c_str(), stderr);
}

}  // namespace tarvex::itx::log
