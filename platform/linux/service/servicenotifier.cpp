#include "service/servicenotifier.h"

#include <systemd/sd-daemon.h>

#include <algorithm>
#include <cstdlib>
#include <thread>

#include "dispatch/threadname.h"
#include "log/log.h"
#include "metrics/counters.h"
#include "metrics/textfile.h"
#include "service/readydispatch.h"
#include "service/servicestatus.h"
#include "xpc/linkcounters.h"

LUMO_LOG_MODULE("LINUX_SERVICE")

namespace tarvex::itx::rtn::linux_platform {

namespace {

constexpr std::chrono::seconds kStatusInterval{2};

}  // namespace

ServiceNotifier* ServiceNotifier::start(std::string metricsPath) {
  const bool notify = std::getenv("NOTIFY_SOCKET") != nullptr;
  uint64_t watchdogUsec = 0;
  if (sd_watchdog_enabled(0, &watchdogUsec) <= 0) watchdogUsec = 0;
  if (!notify && metricsPath.empty()) return nullptr;
  // Lives as long as the process: its thread never ends.
  auto* notifier = new ServiceNotifier(std::move(metricsPath), notify,
                                       std::chrono::microseconds(watchdogUsec));
  std::thread([notifier] { notifier->run(); }).detach();
  return notifier;
}

ServiceNotifier::ServiceNotifier(std::string metricsPath, bool notify,
                                 std::chrono::microseconds watchdog)
    : metricsPath_(std::move(metricsPath)), notify_(notify), watchdog_(watchdog) {}

void ServiceNotifier::ready() {
  ready_.store(true);
  if (!notify_) return;
  const std::string status = serviceStatus().line();
  sd_notifyf(0, "READY=1\nSTATUS=%s", status.c_str());
  LOG_INFO("Ready: %{public}s", status.c_str());
}

void ServiceNotifier::run() {
  nameThread("lumo.service");
  std::chrono::microseconds tick = kStatusInterval;
  if (watchdog_.count() > 0) tick = std::min(tick, watchdog_ / 3);
  auto nextMetrics = std::chrono::steady_clock::now();
  for (;;) {
    std::this_thread::sleep_for(tick);
    // Before READY=1 the manager's start timeout bounds the start, not this.
    if (watchdog_.count() > 0 && progress_.progressing()) sd_notify(0, "WATCHDOG=1");
    if (!ready_.load()) continue;
    if (notify_) {
      std::string status = serviceStatus().line();
      if (status != lastStatus_) {
        sd_notifyf(0, "STATUS=%s", status.c_str());
        lastStatus_ = std::move(status);
      }
    }
    const auto now = std::chrono::steady_clock::now();
    if (!metricsPath_.empty() && now >= nextMetrics) {
      nextMetrics = now + kMetricsInterval;
      writeMetrics();
    }
  }
}

void ServiceNotifier::writeMetrics() {
  std::string error;
  const bool written = replaceFile(metricsPath_, prometheusText(readCounters()), &error);
  // Said once per run of failures, not every ten seconds.
  if (!written && !metricsFailing_) {
    LOG_ERROR("Cannot write the metrics file: %{public}s", error.c_str());
  } else if (written && metricsFailing_) {
    LOG_INFO("Metrics file %{public}s written again", metricsPath_.c_str());
  }
  metricsFailing_ = !written;
}

IDispatch& startServiceSide(IDispatch& dispatch) {
  static const CounterRegistration linkCounters = xpc::linux_platform::registerLinkCounters();
  const char* metrics = std::getenv("LUMO_METRICS_FILE");
  ServiceNotifier* notifier = ServiceNotifier::start(metrics != nullptr ? metrics : "");
  if (notifier == nullptr) return dispatch;
  return *new ReadyDispatch(dispatch, [notifier] { notifier->ready(); });
}

}  // namespace tarvex::itx::rtn::linux_platform
