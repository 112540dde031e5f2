#pragma once

#include <atomic>
#include <chrono>
#include <string>

#include "rtn/dispatch.h"
#include "watchdog/heartbeat.h"

namespace tarvex::itx::rtn::linux_platform {

// The extension's side of its systemd unit (Type=notify, WatchdogSec=) and
// of the metrics file. One thread, which wakes every few seconds:
// - READY=1 once the extension runs (ready());
// - STATUS= whenever the status line changes (servicestatus.h);
// - WATCHDOG=1 every third of WatchdogSec=, and only while the permission
//   reader and the timer thread make progress, so a stuck extension is
//   killed and restarted;
// - the metrics file every kMetricsInterval, when a path is set.
class ServiceNotifier {
 public:
  static constexpr std::chrono::seconds kMetricsInterval{10};

  // Starts the thread when there is a service manager to tell
  // ($NOTIFY_SOCKET) or a metrics file to write; null when neither.
  static ServiceNotifier* start(std::string metricsPath);

  void ready();

 private:
  explicit ServiceNotifier(std::string metricsPath, bool notify,
                           std::chrono::microseconds watchdog);
  void run();
  void writeMetrics();

  const std::string metricsPath_;
  const bool notify_;
  const std::chrono::microseconds watchdog_;  // zero: no watchdog
  std::atomic<bool> ready_{false};
  ProgressCheck progress_;
  std::string lastStatus_;
  bool metricsFailing_ = false;
};

// Starts the extension's service side: the link's counters, and the
// notifier as $LUMO_METRICS_FILE and $NOTIFY_SOCKET ask. Returns the
// dispatch the core is to run on, which reports readiness from main().
IDispatch& startServiceSide(IDispatch& dispatch);

}  // namespace tarvex::itx::rtn::linux_platform
