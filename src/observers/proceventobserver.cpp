#include "observers/proceventobserver.h"

#include <bsm/libbsm.h>

#include <functional>
#include <set>

#include "log/log.h"
#include "xpc/xpcclient.h"

LUMO_LOG_MODULE("MAC_ESPROCEVENT")

namespace endpointsecurity {

namespace {

// Only platform binaries carrying these identifiers are skipped, so a
// look-alike signed by anyone else is still reported.
const std::set<std::string, std::less<>>& excludedSigningIds() {
  static const std::set<std::string, std::less<>> ids{
      "com.apple.sh",        "com.apple.bash",        "com.apple.zsh",
      "com.apple.fseventsd", "com.apple.mds",         "com.apple.mds_stores",
      "com.apple.revisiond", "com.apple.xpc.launchd", "com.apple.xpc.proxy",
  };
  return ids;
}

}  // namespace

ProcEventObserver::ProcEventObserver(IEndpointSecurityApi& esApi) : api(esApi) {
  events = {ES_EVENT_TYPE_NOTIFY_EXEC, ES_EVENT_TYPE_NOTIFY_FORK, ES_EVENT_TYPE_NOTIFY_EXIT};
}

void ProcEventObserver::onNotify(const es_message_t* message, es_client_t* /*client*/) {
  std::string cmd;
  bool isFork = false;
  const es_process_t* subject = message->process;
  switch (message->event_type) {
    case ES_EVENT_TYPE_NOTIFY_EXEC:
      subject = message->event.exec.target;
      cmd = collectArgs(&message->event);
      break;
    case ES_EVENT_TYPE_NOTIFY_FORK:
      subject = message->event.fork.child;
      isFork = true;
      break;
    default:
      break;
  }
  if (subject == nullptr || isExcluded(subject)) return;

  sysext::ProcEvent record;
  if (!cmd.empty()) record.set_cmd(cmd);
  if (subject->executable != nullptr && subject->executable->path.data != nullptr) {
    record.set_path(subject->executable->path.data);
  }
  record.set_ppid(static_cast<uint32_t>(subject->ppid));
  record.set_pid(static_cast<uint32_t>(audit_token_to_pid(subject->audit_token)));
  record.set_sid(static_cast<uint32_t>(audit_token_to_asid(subject->audit_token)));
  record.set_uid(static_cast<uint32_t>(audit_token_to_ruid(subject->audit_token)));
  // Raw Mach time: the daemon converts it.
  record.set_timestamp(message->mach_time);

  if (message->event_type == ES_EVENT_TYPE_NOTIFY_EXIT) {
    onProcessExit(&record);
  } else {
    onProcessConnect(&record, isFork);
  }
}

std::string ProcEventObserver::collectArgs(const es_events_t* event) const {
  std::string args;
  const uint32_t count = api.execArgCount(&event->exec);
  // Argument 0 is the program name, which the record carries as its path.
  for (uint32_t i = 1; i < count; ++i) {
    const es_string_token_t arg = api.execArg(&event->exec, i);
    if (arg.data != nullptr) args += arg.data;
    if (i + 1 < count) args += ' ';
  }
  return args;
}

bool ProcEventObserver::isExcluded(const es_process_t* process) const {
  if (process == nullptr || !process->is_platform_binary || process->signing_id.data == nullptr) {
    return false;
  }
  const char* signingId = process->signing_id.data;
  if (excludedSigningIds().count(signingId) == 0) return false;
  LOG_DEBUG("event skipped as it whitelisted for process: %{public}s", signingId);
  return true;
}

void ProcEventObserver::onProcessExit(const sysext::ProcEvent* event) {
  SysExtXPCClient::sharedInstance().sendProcessExitEvent(event);
}

void ProcEventObserver::onProcessConnect(const sysext::ProcEvent* event, bool /*isFork*/) {
  SysExtXPCClient::sharedInstance().sendProcessStartEvent(event);
}

}  // namespace endpointsecurity
