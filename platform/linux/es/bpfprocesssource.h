#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "es/eventsource.h"
#include "es/processrecord.h"

struct process_bpf;
struct ring_buffer;
struct bpf_link;

namespace endpointsecurity::linux_es {

// The process tier on BPF: tp_btf programs for exec, fork and exit write
// to a ring buffer that one thread drains. Each program is attached only
// while its event type is wanted. Ring-buffer overruns are counted in the
// kernel and logged here.
class BpfProcessSource final : public IEventSource {
 public:
  // Loads the programs and attaches one briefly, so that a kernel that
  // refuses them is known at start. Null with the reason in *why.
  static std::unique_ptr<BpfProcessSource> open(IEventSink& sink, std::string* why);
  ~BpfProcessSource() override;

  const char* name() const override { return "bpf-process"; }
  EventSet types() const override;
  bool apply(const EventSet& wanted) override;
  void stop() override;

  uint64_t dropped() const { return reportedDrops_.load(); }
  // Takes every record the kernel has written so far, on the calling
  // thread: a file or permission event then finds its process cached.
  void catchUp();

 private:
  explicit BpfProcessSource(IEventSink& sink);
  void run();
  void reportDrops();
  uint64_t kernelDrops() const;

  IEventSink& sink_;
  ProcessRecordDecoder decoder_;
  process_bpf* skel_ = nullptr;
  ring_buffer* ring_ = nullptr;
  std::mutex mutex_;       // links and thread start/stop
  std::mutex drainMutex_;  // the ring and the decoder, one thread at a time
  bpf_link* links_[3] = {nullptr, nullptr, nullptr};
  std::thread thread_;
  std::atomic<bool> stopping_{false};
  std::atomic<uint64_t> reportedDrops_{0};
};

}  // namespace endpointsecurity::linux_es
