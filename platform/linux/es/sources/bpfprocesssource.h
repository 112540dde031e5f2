#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "es/hub/eventsource.h"
#include "es/decoders/processrecord.h"

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
  // thread: a file or permission event then finds its process cached. The
  // messages wait for the source's own thread, which delivers them on its
  // beat with the rest: the caller wakes no observer.
  void catchUpCache();

 private:
  // Holds the decoder's messages while another thread drains.
  class Relay final : public IEventSink {
   public:
    explicit Relay(BpfProcessSource& owner) : owner_(owner) {}
    void deliver(Message* message) override;
    bool wants(es_event_type_t type) const override { return owner_.sink_.wants(type); }
    ProcessCache& processes() override { return owner_.sink_.processes(); }
    uint64_t now() override { return owner_.sink_.now(); }
    void catchUpOthers(const IEventSource* asking) override {
      owner_.sink_.catchUpOthers(asking);
    }

   private:
    BpfProcessSource& owner_;
  };

  explicit BpfProcessSource(IEventSink& sink);
  void run();
  // Drains the ring; on the source's thread, held messages go out first.
  void drain(bool ownThread);
  void reportDrops();
  uint64_t kernelDrops() const;

  IEventSink& sink_;
  Relay relay_{*this};
  ProcessRecordDecoder decoder_;
  // Under drainMutex_: messages of drains by other threads, and whether
  // the drain going on is one.
  std::vector<Message*> held_;
  bool holding_ = false;
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
