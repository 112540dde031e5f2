#include "es/sources/procconnectorsource.h"

#include <linux/cn_proc.h>
#include <linux/connector.h>
#include <linux/netlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "dispatch/threadname.h"
#include "dispatch/threadpriority.h"
#include "es/hub/message.h"
#include "es/procfs/procinfo.h"
#include "log/log.h"

LUMO_LOG_MODULE("LINUX_ES")

namespace endpointsecurity::linux_es {

std::unique_ptr<ProcConnectorSource> ProcConnectorSource::open(IEventSink& sink,
                                                               std::string* why) {
  std::unique_ptr<ProcConnectorSource> source(new ProcConnectorSource(sink));
  source->fd_ = socket(PF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_CONNECTOR);
  if (source->fd_ < 0) {
    *why = std::string("netlink connector socket: ") + strerror(errno);
    return nullptr;
  }
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_groups = CN_IDX_PROC;
  address.nl_pid = 0;
  if (bind(source->fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    *why = std::string("netlink connector bind: ") + strerror(errno);
    return nullptr;
  }
  const int size = 8 << 20;
  setsockopt(source->fd_, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size);
  return source;
}

ProcConnectorSource::~ProcConnectorSource() {
  stop();
  if (fd_ >= 0) close(fd_);
}

EventSet ProcConnectorSource::types() const {
  EventSet set;
  set.set(ES_EVENT_TYPE_NOTIFY_EXEC);
  set.set(ES_EVENT_TYPE_NOTIFY_FORK);
  set.set(ES_EVENT_TYPE_NOTIFY_EXIT);
  return set;
}

bool ProcConnectorSource::listen(bool on) {
  constexpr size_t kSize = NLMSG_LENGTH(sizeof(cn_msg) + sizeof(proc_cn_mcast_op));
  alignas(nlmsghdr) char request[kSize] = {};
  auto* header = reinterpret_cast<nlmsghdr*>(request);
  header->nlmsg_len = kSize;
  header->nlmsg_type = NLMSG_DONE;
  header->nlmsg_pid = static_cast<__u32>(getpid());
  auto* message = static_cast<cn_msg*>(NLMSG_DATA(header));
  message->id.idx = CN_IDX_PROC;
  message->id.val = CN_VAL_PROC;
  message->len = sizeof(proc_cn_mcast_op);
  const proc_cn_mcast_op op = on ? PROC_CN_MCAST_LISTEN : PROC_CN_MCAST_IGNORE;
  std::memcpy(message->data, &op, sizeof op);
  if (send(fd_, request, kSize, 0) < 0) {
    LOG_ERROR("Process connector %{public}s failed: %{public}s", on ? "listen" : "ignore",
              strerror(errno));
    return false;
  }
  return true;
}

bool ProcConnectorSource::apply(const EventSet& wanted) {
  std::lock_guard<std::mutex> lock(mutex_);
  const bool want = (wanted & types()).any();
  bool ok = true;
  // The connector has one switch for all process events; the hub drops
  // the types nobody wants.
  if (want != listening_) {
    ok = listen(want);
    if (ok) listening_ = want;
  }
  if (listening_ && !thread_.joinable() && !stopping_.load()) {
    thread_ = std::thread([this] { run(); });
  }
  return ok;
}

void ProcConnectorSource::stop() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (listening_) listen(false);
  listening_ = false;
  stopping_.store(true);
  if (thread_.joinable()) thread_.join();
}

void ProcConnectorSource::run() {
  tarvex::itx::rtn::linux_platform::nameThread("lumo-es-proccn");
  // A reader: its fair share, never ahead of the programs it reports on.
  tarvex::itx::rtn::linux_platform::prioritiseThread(tarvex::itx::rtn::QosClass::Default);
  alignas(nlmsghdr) char buffer[16384];
  while (!stopping_.load()) {
    pollfd p{fd_, POLLIN, 0};
    if (poll(&p, 1, 200) <= 0) continue;
    ssize_t n = recv(fd_, buffer, sizeof buffer, 0);
    if (n < 0) {
      if (errno == ENOBUFS) {
        const uint64_t total = overruns_.fetch_add(1) + 1;
        LOG_ERROR("Process connector overran: events were lost (%llu overruns in all).",
                  static_cast<unsigned long long>(total));
      }
      continue;
    }
    for (auto* header = reinterpret_cast<nlmsghdr*>(buffer); NLMSG_OK(header, static_cast<size_t>(n));
         header = NLMSG_NEXT(header, n)) {
      if (header->nlmsg_type == NLMSG_ERROR || header->nlmsg_type == NLMSG_NOOP) continue;
      const auto* message = static_cast<const cn_msg*>(NLMSG_DATA(header));
      const size_t room = header->nlmsg_len - NLMSG_HDRLEN;
      if (room < sizeof(cn_msg) || message->len > room - sizeof(cn_msg)) {
        LOG_ERROR("Process connector message of %u bytes is malformed; dropped.",
                  header->nlmsg_len);
        continue;
      }
      handle(message->data, message->len);
    }
  }
}

void ProcConnectorSource::handle(const void* data, size_t size) {
  if (size < offsetof(proc_event, event_data)) return;
  proc_event event{};
  std::memcpy(&event, data, std::min(size, sizeof event));
  ProcessCache& cache = sink_.processes();
  switch (event.what) {
    case proc_event::PROC_EVENT_FORK: {
      if (event.event_data.fork.child_pid != event.event_data.fork.child_tgid) return;
      const pid_t child = event.event_data.fork.child_tgid;
      std::optional<ProcessInfo> parent = cache.lookup(event.event_data.fork.parent_tgid);
      std::optional<ProcessInfo> info = cache.lookup(child);
      if (!sink_.wants(ES_EVENT_TYPE_NOTIFY_FORK)) return;
      ProcessInfo childInfo = info ? *info : ProcessInfo{};
      if (!info) {
        childInfo.pid = child;
        childInfo.ppid = event.event_data.fork.parent_tgid;
        if (parent) childInfo.exe = parent->exe;
      }
      auto* message = new Message(ES_EVENT_TYPE_NOTIFY_FORK, ES_ACTION_TYPE_NOTIFY);
      ProcessInfo acting = parent ? *parent : ProcessInfo{};
      if (!parent) acting.pid = event.event_data.fork.parent_tgid;
      message->es.process = message->addProcess(acting);
      message->es.event.fork.child = message->addProcess(childInfo);
      sink_.deliver(message);
      return;
    }
    case proc_event::PROC_EVENT_EXEC: {
      const pid_t pid = event.event_data.exec.process_tgid;
      std::optional<ProcessInfo> before = cache.lookup(pid);
      ProcessInfo target;
      const ProcReader reader;
      const bool known = reader.read(pid, target);
      if (!known) target.pid = pid;
      if (known) cache.put(target);
      if (!sink_.wants(ES_EVENT_TYPE_NOTIFY_EXEC)) return;
      auto* message = new Message(ES_EVENT_TYPE_NOTIFY_EXEC, ES_ACTION_TYPE_NOTIFY);
      message->es.process = message->addProcess(before ? *before : target);
      message->es.event.exec.target = message->addProcess(target);
      if (auto args = reader.cmdline(pid)) message->setExecArgs(std::move(*args));
      sink_.deliver(message);
      return;
    }
    case proc_event::PROC_EVENT_EXIT: {
      if (event.event_data.exit.process_pid != event.event_data.exit.process_tgid) return;
      const pid_t pid = event.event_data.exit.process_tgid;
      std::optional<ProcessInfo> known = cache.lookup(pid);
      cache.forget(pid);
      if (!sink_.wants(ES_EVENT_TYPE_NOTIFY_EXIT)) return;
      ProcessInfo info = known ? *known : ProcessInfo{};
      if (!known) info.pid = pid;
      auto* message = new Message(ES_EVENT_TYPE_NOTIFY_EXIT, ES_ACTION_TYPE_NOTIFY);
      message->es.process = message->addProcess(info);
      message->es.event.exit.stat = static_cast<int>(event.event_data.exit.exit_code);
      sink_.deliver(message);
      return;
    }
    default:
      return;
  }
}

}  // namespace endpointsecurity::linux_es
