#include "es/sources/bpfprocesssource.h"

#include <bpf/libbpf.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <vector>

#include "dispatch/threadname.h"
#include "dispatch/threadpriority.h"
#include "dispatch/wakebatch.h"
#include "es/sources/beat.h"
#include "es/hub/message.h"
#include "log/log.h"
#include "process.skel.h"

LUMO_LOG_MODULE("LINUX_ES")

namespace endpointsecurity::linux_es {

namespace {

// Records wake nobody (see the programs): the buffer is drained on the
// sources' beat, which bounds their latency, and whenever another source
// misses a process.

// Set while this thread drains: records handled then may look processes
// up again, and a nested drain would take records twice.
thread_local bool draining = false;

constexpr es_event_type_t kTypes[] = {ES_EVENT_TYPE_NOTIFY_EXEC, ES_EVENT_TYPE_NOTIFY_FORK,
                                      ES_EVENT_TYPE_NOTIFY_EXIT};

bpf_program* programOf(process_bpf* skel, size_t index) {
  switch (index) {
    case 0: return skel->progs.lumo_exec;
    case 1: return skel->progs.lumo_fork;
    default: return skel->progs.lumo_exit;
  }
}

int onRecord(void* ctx, void* data, size_t size) {
  static_cast<ProcessRecordDecoder*>(ctx)->handle(data, size);
  return 0;
}

// libbpf's own lines go to our log rather than to stderr.
int libbpfPrint(enum libbpf_print_level level, const char* format, va_list args) {
  if (level == LIBBPF_DEBUG) return 0;
  char line[512];
  vsnprintf(line, sizeof line, format, args);
  const size_t n = strlen(line);
  if (n > 0 && line[n - 1] == '\n') line[n - 1] = '\0';
  LOG_DEBUG("libbpf: %{public}s", line);
  return 0;
}

}  // namespace

BpfProcessSource::BpfProcessSource(IEventSink& sink) : sink_(sink), decoder_(relay_) {}

void BpfProcessSource::Relay::deliver(Message* message) {
  if (owner_.holding_) {
    owner_.held_.push_back(message);
  } else {
    owner_.sink_.deliver(message);
  }
}

std::unique_ptr<BpfProcessSource> BpfProcessSource::open(IEventSink& sink, std::string* why) {
  libbpf_set_print(libbpfPrint);
  std::unique_ptr<BpfProcessSource> source(new BpfProcessSource(sink));
  source->skel_ = process_bpf__open_and_load();
  if (source->skel_ == nullptr) {
    *why = std::string("programs do not load: ") + strerror(errno);
    return nullptr;
  }
  // Loading is not enough: some kernels refuse the attach.
  bpf_link* probe = bpf_program__attach(source->skel_->progs.lumo_fork);
  if (probe == nullptr) {
    *why = std::string("programs do not attach: ") + strerror(errno);
    return nullptr;
  }
  bpf_link__destroy(probe);
  source->ring_ = ring_buffer__new(bpf_map__fd(source->skel_->maps.events), onRecord,
                                   &source->decoder_, nullptr);
  if (source->ring_ == nullptr) {
    *why = std::string("ring buffer: ") + strerror(errno);
    return nullptr;
  }
  BpfProcessSource* raw = source.get();
  sink.processes().setCatchUp([raw] { raw->catchUpCache(); });
  return source;
}

BpfProcessSource::~BpfProcessSource() {
  sink_.processes().setCatchUp(nullptr);
  stop();
  for (Message* message : held_) delete message;  // drained with no thread to deliver them
  if (ring_ != nullptr) ring_buffer__free(ring_);
  if (skel_ != nullptr) process_bpf__destroy(skel_);
}

EventSet BpfProcessSource::types() const {
  EventSet set;
  for (es_event_type_t type : kTypes) set.set(type);
  return set;
}

bool BpfProcessSource::apply(const EventSet& wanted) {
  std::lock_guard<std::mutex> lock(mutex_);
  bool ok = true;
  bool any = false;
  for (size_t i = 0; i < 3; ++i) {
    const bool want = wanted.test(kTypes[i]);
    any = any || want;
    if (want && links_[i] == nullptr) {
      links_[i] = bpf_program__attach(programOf(skel_, i));
      if (links_[i] == nullptr) {
        LOG_ERROR("Attaching the process program for event %d failed: %{public}s",
                  static_cast<int>(kTypes[i]), strerror(errno));
        ok = false;
      }
    } else if (!want && links_[i] != nullptr) {
      bpf_link__destroy(links_[i]);
      links_[i] = nullptr;
    }
  }
  if (any && !thread_.joinable() && !stopping_.load()) {
    thread_ = std::thread([this] { run(); });
  }
  return ok;
}

void BpfProcessSource::stop() {
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto& link : links_) {
    if (link != nullptr) bpf_link__destroy(link);
    link = nullptr;
  }
  stopping_.store(true);
  if (thread_.joinable()) thread_.join();
}

uint64_t BpfProcessSource::kernelDrops() const {
  const int cpus = libbpf_num_possible_cpus();
  if (cpus <= 0) return 0;
  std::vector<uint64_t> perCpu(static_cast<size_t>(cpus));
  const uint32_t zero = 0;
  if (bpf_map__lookup_elem(skel_->maps.drops, &zero, sizeof zero, perCpu.data(),
                           perCpu.size() * sizeof(uint64_t), 0) != 0) {
    return 0;
  }
  uint64_t total = 0;
  for (uint64_t v : perCpu) total += v;
  return total;
}

void BpfProcessSource::reportDrops() {
  const uint64_t total = kernelDrops();
  const uint64_t before = reportedDrops_.exchange(total);
  if (total > before) {
    LOG_ERROR("Process ring buffer overran: %llu events lost (%llu in all).",
              static_cast<unsigned long long>(total - before),
              static_cast<unsigned long long>(total));
  }
}

void BpfProcessSource::catchUpCache() {
  if (stopping_.load()) return;
  drain(false);
}

void BpfProcessSource::drain(bool ownThread) {
  if (draining) return;
  std::lock_guard<std::mutex> lock(drainMutex_);
  tarvex::itx::rtn::linux_platform::WakeBatch batch;
  draining = true;
  if (ownThread) {
    std::vector<Message*> held;
    held.swap(held_);
    for (Message* message : held) sink_.deliver(message);
  }
  holding_ = !ownThread;
  const int n = ring_buffer__consume(ring_);
  holding_ = false;
  draining = false;
  if (n < 0) LOG_ERROR("Draining the process ring buffer failed: %{public}s", strerror(-n));
}

void BpfProcessSource::run() {
  tarvex::itx::rtn::linux_platform::nameThread("lumo-es-bpfproc");
  // A reader: its fair share, never ahead of the programs it reports on.
  tarvex::itx::rtn::linux_platform::prioritiseThread(tarvex::itx::rtn::QosClass::Default);
  auto lastCheck = std::chrono::steady_clock::now();
  const int epollFd = ring_buffer__epoll_fd(ring_);
  while (!stopping_.load()) {
    epoll_event ready{};
    if (epollUntilNextBeat(epollFd, &ready) < 0 && errno != EINTR) {
      LOG_ERROR("Waiting on the process ring buffer failed: %{public}s", strerror(errno));
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    drain(true);
    const auto now = std::chrono::steady_clock::now();
    if (now - lastCheck >= std::chrono::seconds(1)) {
      reportDrops();
      lastCheck = now;
    }
  }
  drain(true);
  reportDrops();
}

}  // namespace endpointsecurity::linux_es
