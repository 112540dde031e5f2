#include "es/decoders/processrecord.h"

#include <limits.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstring>

#include "es/bpf/processevent.h"
#include "es/hub/message.h"
#include "log/log.h"

LUMO_LOG_MODULE("LINUX_ES")

namespace endpointsecurity::linux_es {

namespace {

constexpr size_t kHeaderSize = offsetof(lumo_proc_event, filename);
constexpr size_t kExecFixedSize = offsetof(lumo_proc_event, args);

std::string boundedString(const char* data, size_t capacity, uint32_t length) {
  const size_t n = std::min<size_t>(length, capacity);
  return std::string(data, strnlen(data, n));
}

}  // namespace

ProcessRecordDecoder::ProcessRecordDecoder(IEventSink& sink)
    : sink_(sink), ticksPerSecond_(sysconf(_SC_CLK_TCK) > 0 ? sysconf(_SC_CLK_TCK) : 100) {}

ProcessInfo ProcessRecordDecoder::infoOf(const lumo_proc_ident& ident) const {
  ProcessInfo info;
  info.pid = static_cast<pid_t>(ident.pid);
  info.ppid = static_cast<pid_t>(ident.ppid);
  info.ruid = ident.ruid;
  info.euid = ident.euid;
  info.rgid = ident.rgid;
  info.egid = ident.egid;
  info.auid = ident.auid;
  info.asid = ident.asid;
  info.startTicks = ident.start_ns / (1000000000ull / static_cast<uint64_t>(ticksPerSecond_));
  return info;
}

std::string ProcessRecordDecoder::resolveImage(const std::string& name, pid_t pid) {
  if (name.empty()) return name;
  std::string full = name;
  if (name[0] != '/') {
    char cwd[PATH_MAX];
    const std::string link = "/proc/" + std::to_string(pid) + "/cwd";
    const ssize_t n = readlink(link.c_str(), cwd, sizeof cwd - 1);
    if (n <= 0) return name;
    full = std::string(cwd, static_cast<size_t>(n)) + "/" + name;
  }
  // Images repeat (a shell loop, a build): resolved ones are kept for a
  // second, which spares an exec's critical path a readlink per component.
  const auto now = std::chrono::steady_clock::now();
  auto known = images_.find(full);
  if (known != images_.end() && now - known->second.at < kImageTtl) return known->second.path;
  char resolved[PATH_MAX];
  std::string path = realpath(full.c_str(), resolved) != nullptr ? std::string(resolved) : full;
  if (images_.size() >= kImages) images_.clear();
  images_[full] = {path, now};
  return path;
}

bool ProcessRecordDecoder::handle(const void* data, size_t size) {
  if (data == nullptr || size < kHeaderSize) {
    ++malformed_;
    LOG_ERROR("Process record of %zu bytes is too short; dropped.", size);
    return false;
  }
  lumo_proc_event record;
  std::memset(&record, 0, sizeof record);
  std::memcpy(&record, data, std::min(size, sizeof record));
  switch (record.kind) {
    case LUMO_PROC_EXEC:
      if (size < kExecFixedSize || record.args_len > LUMO_ARGS_MAX ||
          size < kExecFixedSize + record.args_len) {
        break;
      }
      onExec(record);
      return true;
    case LUMO_PROC_FORK:
      onFork(record);
      return true;
    case LUMO_PROC_EXIT:
      onExit(record);
      return true;
    default:
      break;
  }
  ++malformed_;
  LOG_ERROR("Process record of kind %u and %zu bytes does not parse; dropped.", record.kind,
            size);
  return false;
}

void ProcessRecordDecoder::onExec(const lumo_proc_event& record) {
  ProcessInfo target = infoOf(record.proc);
  const std::string filename =
      boundedString(record.filename, sizeof record.filename, record.filename_len);
  const std::string interp = boundedString(record.interp, sizeof record.interp, record.interp_len);
  target.exe = resolveImage(interp.empty() ? filename : interp, target.pid);
  // The image before the exec, when known, is the acting process.
  std::optional<ProcessInfo> before = sink_.processes().lookup(target.pid, target.startTicks);
  if (before) {
    target.pgid = before->pgid;
    target.sid = before->sid;
  }
  sink_.processes().put(target);
  if (!sink_.wants(ES_EVENT_TYPE_NOTIFY_EXEC)) return;

  auto* message = new Message(ES_EVENT_TYPE_NOTIFY_EXEC, ES_ACTION_TYPE_NOTIFY);
  message->es.process = message->addProcess(before ? *before : target);
  message->es.event.exec.target = message->addProcess(target);
  if (!interp.empty() && filename != interp) {
    message->es.event.exec.script = message->addFile(resolveImage(filename, target.pid), nullptr);
  }
  std::vector<std::string> args = ProcReader::splitNul(std::string(record.args, record.args_len));
  if (record.flags & LUMO_ARGS_TRUNCATED) {
    LOG_DEBUG("Arguments of pid %d were cut at %d bytes.", target.pid, LUMO_ARGS_MAX - 1);
  }
  message->setExecArgs(std::move(args));
  sink_.deliver(message);
}

void ProcessRecordDecoder::onFork(const lumo_proc_event& record) {
  const ProcessInfo parentIdent = infoOf(record.parent);
  std::optional<ProcessInfo> parent =
      sink_.processes().lookup(parentIdent.pid, parentIdent.startTicks);
  ProcessInfo child = infoOf(record.proc);
  if (parent) {
    child.exe = parent->exe;
    child.pgid = parent->pgid;
    child.sid = parent->sid;
  } else if (auto exe = ProcReader().exe(child.pid)) {
    child.exe = *exe;
  }
  sink_.processes().put(child);
  if (!sink_.wants(ES_EVENT_TYPE_NOTIFY_FORK)) return;

  auto* message = new Message(ES_EVENT_TYPE_NOTIFY_FORK, ES_ACTION_TYPE_NOTIFY);
  ProcessInfo acting = parent ? *parent : parentIdent;
  if (!parent) acting.exe = child.exe;
  message->es.process = message->addProcess(acting);
  message->es.event.fork.child = message->addProcess(child);
  sink_.deliver(message);
}

void ProcessRecordDecoder::onExit(const lumo_proc_event& record) {
  const ProcessInfo ident = infoOf(record.proc);
  std::optional<ProcessInfo> known = sink_.processes().lookup(ident.pid, ident.startTicks);
  sink_.processes().forget(ident.pid);
  if (!sink_.wants(ES_EVENT_TYPE_NOTIFY_EXIT)) return;

  auto* message = new Message(ES_EVENT_TYPE_NOTIFY_EXIT, ES_ACTION_TYPE_NOTIFY);
  message->es.process = message->addProcess(known ? *known : ident);
  message->es.event.exit.stat = static_cast<int>(record.exit_code);
  sink_.deliver(message);
}

}  // namespace endpointsecurity::linux_es
