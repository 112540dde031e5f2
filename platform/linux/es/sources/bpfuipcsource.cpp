#include "es/sources/bpfuipcsource.h"

#include <bpf/libbpf.h>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <sstream>
#include <vector>

#include "dispatch/threadname.h"
#include "dispatch/threadpriority.h"
#include "dispatch/wakebatch.h"
#include "es/sources/beat.h"
#include "es/bpf/uipcevent.h"
#include "es/hub/message.h"
#include "es/procfs/mounts.h"
#include "es/procfs/procinfo.h"
#include "es/procfs/socketmatch.h"
#include "log/log.h"
#include "observers/cupspaths.h"
#include "uipc.skel.h"

LUMO_LOG_MODULE("LINUX_ES")

namespace endpointsecurity::linux_es {

namespace {

// Records wake nobody (see the programs): the buffer is drained on the
// sources' beat, which bounds their latency.

// BPF_CGROUP_UNIX_CONNECT: newer than the UAPI headers of Debian 12.
constexpr int kUnixConnectAttachType = 49;

std::string cgroup2Root() {
  std::ifstream in("/proc/self/mountinfo");
  std::ostringstream text;
  text << in.rdbuf();
  for (const MountEntry& mount : parseMountInfo(text.str())) {
    if (mount.fsType == "cgroup2") return mount.path;
  }
  return {};
}

int onRecord(void* ctx, void* data, size_t size) {
  static_cast<BpfUipcSource*>(ctx)->handle(data, size);
  return 0;
}

}  // namespace

std::unique_ptr<BpfUipcSource> BpfUipcSource::open(IEventSink& sink, std::string* why) {
  std::unique_ptr<BpfUipcSource> source(new BpfUipcSource(sink));
  const std::string root = cgroup2Root();
  if (root.empty()) {
    *why = "no cgroup2 hierarchy mounted";
    return nullptr;
  }
  source->cgroup_ = ::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (source->cgroup_ < 0) {
    *why = "cgroup2 root " + root + ": " + strerror(errno);
    return nullptr;
  }
  source->skel_ = uipc_bpf__open();
  if (source->skel_ == nullptr) {
    *why = std::string("program does not open: ") + strerror(errno);
    return nullptr;
  }
  bpf_program__set_expected_attach_type(source->skel_->progs.lumo_connect_unix,
                                        static_cast<bpf_attach_type>(kUnixConnectAttachType));
  if (uipc_bpf__load(source->skel_) != 0) {
    *why = std::string("program does not load: ") + strerror(errno);
    return nullptr;
  }
  source->ring_ = ring_buffer__new(bpf_map__fd(source->skel_->maps.uipc_events), onRecord,
                                   source.get(), nullptr);
  if (source->ring_ == nullptr) {
    *why = std::string("ring buffer: ") + strerror(errno);
    return nullptr;
  }
  return source;
}

BpfUipcSource::~BpfUipcSource() {
  stop();
  if (ring_ != nullptr) ring_buffer__free(ring_);
  if (skel_ != nullptr) uipc_bpf__destroy(skel_);
  if (cgroup_ >= 0) close(cgroup_);
}

EventSet BpfUipcSource::types() const {
  EventSet set;
  set.set(ES_EVENT_TYPE_NOTIFY_UIPC_CONNECT);
  return set;
}

bool BpfUipcSource::apply(const EventSet& wanted) {
  std::lock_guard<std::mutex> lock(mutex_);
  const bool want = wanted.test(ES_EVENT_TYPE_NOTIFY_UIPC_CONNECT);
  if (want && link_ == nullptr) {
    link_ = bpf_program__attach_cgroup(skel_->progs.lumo_connect_unix, cgroup_);
    if (link_ == nullptr) {
      LOG_ERROR("Attaching the local-socket connect program failed: %{public}s", strerror(errno));
      return false;
    }
    if (!thread_.joinable()) thread_ = std::thread([this] { run(); });
  } else if (!want && link_ != nullptr) {
    bpf_link__destroy(link_);
    link_ = nullptr;
  }
  return true;
}

void BpfUipcSource::stop() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (link_ != nullptr) bpf_link__destroy(link_);
  link_ = nullptr;
  stopping_.store(true);
  if (thread_.joinable()) thread_.join();
}

std::string BpfUipcSource::socketPath(const char* path, size_t length) {
  length = std::min<size_t>(length, LUMO_SUN_PATH_MAX);
  if (length == 0) return {};
  if (path[0] == '\0') return "@" + std::string(path + 1, length - 1);
  return std::string(path, strnlen(path, length));
}

bool BpfUipcSource::handle(const void* data, size_t size) {
  if (data == nullptr || size < sizeof(lumo_uipc_event)) {
    LOG_ERROR("Local-socket record of %zu bytes is too short; dropped.", size);
    return false;
  }
  lumo_uipc_event record;
  std::memcpy(&record, data, sizeof record);
  if (!sink_.wants(ES_EVENT_TYPE_NOTIFY_UIPC_CONNECT)) return true;
  auto* message = new Message(ES_EVENT_TYPE_NOTIFY_UIPC_CONNECT, ES_ACTION_TYPE_NOTIFY);
  const pid_t pid = static_cast<pid_t>(record.pid);
  std::optional<ProcessInfo> info = sink_.processes().lookup(pid);
  ProcessInfo known = info ? *info : ProcessInfo{};
  if (!info) {
    known.pid = pid;
    known.ruid = record.uid;
  }
  message->es.process = message->addProcess(known);
  es_event_uipc_connect_t& connect = message->es.event.uipc_connect;
  // The printer observer knows the scheduler's socket by its usual path.
  connect.file = message->addFile(
      matchKnownSocket(pid, socketPath(record.path, record.path_len), cupsPaths().socket),
      nullptr);
  connect.domain = AF_UNIX;
  connect.type = static_cast<int>(record.type);
  connect.protocol = 0;
  sink_.deliver(message);
  return true;
}

void BpfUipcSource::reportDrops() {
  const int cpus = libbpf_num_possible_cpus();
  if (cpus <= 0) return;
  std::vector<uint64_t> perCpu(static_cast<size_t>(cpus));
  const uint32_t zero = 0;
  if (bpf_map__lookup_elem(skel_->maps.uipc_drops, &zero, sizeof zero, perCpu.data(),
                           perCpu.size() * sizeof(uint64_t), 0) != 0) {
    return;
  }
  uint64_t total = 0;
  for (uint64_t v : perCpu) total += v;
  if (total > reportedDrops_.load()) {
    LOG_ERROR("Local-socket ring buffer overran: %llu events lost (%llu in all).",
              static_cast<unsigned long long>(total - reportedDrops_.load()),
              static_cast<unsigned long long>(total));
    reportedDrops_ = total;
  }
}

void BpfUipcSource::run() {
  tarvex::itx::rtn::linux_platform::nameThread("lumo-es-bpfuipc");
  // A reader: its fair share, never ahead of the programs it reports on.
  tarvex::itx::rtn::linux_platform::prioritiseThread(tarvex::itx::rtn::QosClass::Default);
  auto lastCheck = std::chrono::steady_clock::now();
  const int epollFd = ring_buffer__epoll_fd(ring_);
  while (!stopping_.load()) {
    epoll_event ready{};
    int n = epollUntilNextBeat(epollFd, &ready) < 0 && errno != EINTR ? -errno : 0;
    if (n == 0) n = drain();
    if (n < 0 && n != -EINTR) std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const auto now = std::chrono::steady_clock::now();
    if (now - lastCheck >= std::chrono::seconds(1)) {
      reportDrops();
      lastCheck = now;
    }
  }
  drain();
}

int BpfUipcSource::drain() {
  std::lock_guard<std::mutex> lock(drainMutex_);
  tarvex::itx::rtn::linux_platform::WakeBatch batch;
  return ring_buffer__consume(ring_);
}

// Reading an empty ring costs no system call.
void BpfUipcSource::catchUp() {
  drain();
}

}  // namespace endpointsecurity::linux_es
