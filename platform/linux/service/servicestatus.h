#pragma once

#include <map>
#include <mutex>
#include <string>
#include <string_view>

#include "log/logsink.h"

namespace tarvex::itx::rtn::linux_platform {

// What `systemctl status` shows of the extension: its mode, the event
// tiers that loaded and the daemon link. Mode and tiers are taken from the
// lines the extension logs anyway (the core announces its mode, the
// facility each tier it opens), so neither has to know about the service
// manager.
class ServiceStatus {
 public:
  // Notes what a log line says about the mode or a tier; others are ignored.
  void noteLogLine(std::string_view line);
  // "mode normal; tiers process=bpf files=fanotify auth=fanotify
  // sockets=bpf; link up (1 connection)"
  std::string line() const;

 private:
  mutable std::mutex mutex_;
  std::string mode_ = "starting";
  std::map<std::string, std::string> tiers_;
};

ServiceStatus& serviceStatus();

// A log sink that hands every line on to `next` and shows it to the
// process's ServiceStatus on the way.
class StatusTap final : public log::ILogSink {
 public:
  explicit StatusTap(log::ILogSink& next) : next_(next) {}
  void write(const log::LogObject& log, log::LogType type, std::string_view line) override;

 private:
  log::ILogSink& next_;
};

}  // namespace tarvex::itx::rtn::linux_platform
