#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "es/hub/eventsource.h"

struct uipc_bpf;
struct ring_buffer;
struct bpf_link;

namespace endpointsecurity::linux_es {

// NOTIFY_UIPC_CONNECT from a BPF cgroup/connect_unix program on the
// cgroup2 root: who connects to which local socket path. Attached only
// while the type is subscribed; ring-buffer overruns are counted and logged.
class BpfUipcSource final : public IEventSource {
 public:
  static std::unique_ptr<BpfUipcSource> open(IEventSink& sink, std::string* why);
  ~BpfUipcSource() override;

  uint64_t dropped() const { return reportedDrops_.load(); }
  const char* name() const override { return "bpf-uipc"; }
  EventSet types() const override;
  bool apply(const EventSet& wanted) override;
  void stop() override;
  void catchUp() override;

  // The socket path of a record's bytes: abstract names as "@name".
  static std::string socketPath(const char* path, size_t length);
  bool handle(const void* data, size_t size);

 private:
  explicit BpfUipcSource(IEventSink& sink) : sink_(sink) {}
  void run();
  // Takes what the ring holds. Returns ring_buffer__consume's result.
  int drain();
  void reportDrops();

  IEventSink& sink_;
  uipc_bpf* skel_ = nullptr;
  ring_buffer* ring_ = nullptr;
  int cgroup_ = -1;
  std::mutex mutex_;
  std::mutex drainMutex_;  // the thread and catch-ups take turns on the ring
  bpf_link* link_ = nullptr;
  std::thread thread_;
  std::atomic<bool> stopping_{false};
  std::atomic<uint64_t> reportedDrops_{0};
};

}  // namespace endpointsecurity::linux_es
