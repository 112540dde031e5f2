#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "es/hub/eventsource.h"

namespace endpointsecurity::linux_es {

// The fallback process tier: the netlink process connector. It carries
// only pids, so everything else is read from /proc after the fact: a
// process that is gone by then yields a message with what is known (no
// image path, no arguments). Socket overruns (ENOBUFS) are counted and
// logged.
class ProcConnectorSource final : public IEventSource {
 public:
  static std::unique_ptr<ProcConnectorSource> open(IEventSink& sink, std::string* why);
  ~ProcConnectorSource() override;

  const char* name() const override { return "proc-connector"; }
  EventSet types() const override;
  bool apply(const EventSet& wanted) override;
  void stop() override;

  uint64_t overruns() const { return overruns_.load(); }

 private:
  explicit ProcConnectorSource(IEventSink& sink) : sink_(sink) {}
  bool listen(bool on);
  void run();
  void handle(const void* data, size_t size);

  IEventSink& sink_;
  int fd_ = -1;
  std::mutex mutex_;
  bool listening_ = false;
  std::thread thread_;
  std::atomic<bool> stopping_{false};
  std::atomic<uint64_t> overruns_{0};
};

}  // namespace endpointsecurity::linux_es
