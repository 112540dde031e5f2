#include "service/servicestatus.h"

#include "xpc/linkcounters.h"

namespace tarvex::itx::rtn::linux_platform {

namespace {

// A line containing `text` sets `key` (a tier, or "mode") to `value`.
struct Sign {
  const char* text;
  const char* key;
  const char* value;
};

constexpr Sign kSigns[] = {
    {"ES sysext will start in normal mode.", "mode", "normal"},
    {"ES sysext will start in sleep mode.", "mode", "sleep"},
    {"Sleep procedure finished", "mode", "sleep"},
    {"Wakeup procedure finished", "mode", "normal"},
    {"Uninstall procedure initiated", "mode", "uninstalling"},
    {"Uninstall procedure finished", "mode", "uninstalled"},
    {"Process events: BPF tier (", "process", "bpf"},
    {"Process events: netlink process connector tier", "process", "connector"},
    {"Process events: no tier available", "process", "none"},
    {"File events: fanotify FID group with", "files", "fanotify"},
    {"File events: fanotify group closed", "files", "off"},
    {"File events: fanotify in FID mode unavailable", "files", "none"},
    {"Authorisation events: fanotify permission group (", "auth", "fanotify"},
    {"Authorisation events: permission group closed", "auth", "off"},
    {"Authorisation events: fanotify permission events unavailable", "auth", "none"},
    {"Local-socket connects: BPF", "sockets", "bpf"},
    {"Local-socket connects unavailable", "sockets", "none"},
};

}  // namespace

void ServiceStatus::noteLogLine(std::string_view line) {
  for (const Sign& sign : kSigns) {
    if (line.find(sign.text) == std::string_view::npos) continue;
    std::lock_guard lock(mutex_);
    if (std::string_view(sign.key) == "mode") {
      mode_ = sign.value;
    } else {
      tiers_[sign.key] = sign.value;
    }
    return;
  }
}

std::string ServiceStatus::line() const {
  std::string text;
  {
    std::lock_guard lock(mutex_);
    text = "mode " + mode_ + "; tiers";
    if (tiers_.empty()) text += " none yet";
    for (const auto& [tier, how] : tiers_) text += " " + tier + "=" + how;
  }
  const auto& link = xpc::linux_platform::linkCounters();
  const uint64_t connections = link.connections.load();
  text += link.established.load() > 0 ? "; link up (" : "; link down (";
  text += std::to_string(connections) + (connections == 1 ? " connection)" : " connections)");
  return text;
}

ServiceStatus& serviceStatus() {
  static ServiceStatus* const status = new ServiceStatus;  // logged to until the end
  return *status;
}

void StatusTap::write(const log::LogObject& log, log::LogType type, std::string_view line) {
  if (type != log::LogType::Debug) serviceStatus().noteLogLine(line);
  next_.write(log, type, line);
}

}  // namespace tarvex::itx::rtn::linux_platform
