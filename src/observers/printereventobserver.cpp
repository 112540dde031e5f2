#include "observers/printereventobserver.h"

#include <bsm/libbsm.h>
#include <dirent.h>

#include <thread>

#include "log/log.h"
#include "xpc/xpcclient.h"

LUMO_LOG_MODULE("MAC_ESPRINTEREVENT")

namespace endpointsecurity {

namespace {

// A pending verdict holds a filter for six waits, 1200 ms in all.
constexpr std::chrono::milliseconds kVerdictPoll{200};
constexpr int kMaxWaitedMs = 1000;

// The printing system's own helpers also talk to its socket; their
// connections are not job submissions. Honoured only for platform binaries.
const std::set<std::string, std::less<>>& printUtilities() {
  static const std::set<std::string, std::less<>> ids{
      "com.apple.print.daemon.printtool", "com.apple.snmpInk", "com.apple.printuitool",
      "com.apple.print.PrinterProxy",     "com.apple.cancel",  "com.apple.commandInk",
  };
  return ids;
}

const char* pathOf(const es_file_t* file) { return file != nullptr ? file->path.data : nullptr; }

std::string executablePath(const es_message_t* message) {
  const es_process_t* target = message->event.exec.target;
  const char* name = target != nullptr ? pathOf(target->executable) : nullptr;
  LOG_ASSERT(name, "Unexpected null event data field");
  return name != nullptr ? name : "";
}

std::string renameDestination(const es_event_rename_t& rename) {
  if (rename.destination_type == ES_DESTINATION_TYPE_EXISTING_FILE) {
    const char* name = pathOf(rename.destination.existing_file);
    LOG_ASSERT(name, "Unexpected null event data field");
    return name != nullptr ? name : "";
  }
  const char* newPath = pathOf(rename.destination.new_path.dir);
  LOG_ASSERT(newPath, "Unexpected null event data field");
  if (newPath == nullptr) return "";
  std::string destination(newPath);
  destination += '/';
  const char* filename = rename.destination.new_path.filename.data;
  if (filename != nullptr) destination += filename;
  return destination;
}

}  // namespace

PrinterEventObserver::PrinterEventObserver(IEndpointSecurityApi& esApi, CupsPaths cups,
                                           Sleeper sleeper)
    : api(esApi), paths(std::move(cups)), sleep(std::move(sleeper)) {
  events = {ES_EVENT_TYPE_NOTIFY_RENAME, ES_EVENT_TYPE_NOTIFY_UIPC_CONNECT,
            ES_EVENT_TYPE_AUTH_EXEC};
}

void PrinterEventObserver::defaultSleep(std::chrono::milliseconds duration) {
  std::this_thread::sleep_for(duration);
}

bool PrinterEventObserver::init() {
  for (const std::string& dir : paths.programDirs) {
    DIR* handle = opendir(dir.c_str());
    if (handle == nullptr) {
      LOG_ERROR("failed to enumerate cups filter dir: %{public}s", dir.c_str());
      continue;
    }
    while (const dirent* entry = readdir(handle)) {
      // Links and subdirectories are not programs the spooler runs directly.
      if (entry->d_type != DT_REG) continue;
      const std::string program = dir + entry->d_name;
      LOG_DEBUG("new filter: %{public}s", program.c_str());
      filters.insert(program);
    }
    closedir(handle);
  }
  return true;
}

void PrinterEventObserver::onNotify(const es_message_t* message, es_client_t* /*client*/) {
  switch (message->event_type) {
    case ES_EVENT_TYPE_NOTIFY_UIPC_CONNECT: {
      const char* name = pathOf(message->event.uipc_connect.file);
      LOG_ASSERT(name, "Unexpected null event data field");
      if (name != nullptr && paths.socket == name) handleCupsSocketEvent(message);
      break;
    }
    case ES_EVENT_TYPE_NOTIFY_RENAME: {
      const std::string destination = renameDestination(message->event.rename);
      if (destination.starts_with(paths.spoolPrefix)) handleCupsFileEvent(destination);
      break;
    }
    default:
      LOG_ASSERT(false, "Unknow event type.");
      break;
  }
}

bool PrinterEventObserver::onAuth(const es_message_t* message, es_client_t* client) {
  if (message->event_type != ES_EVENT_TYPE_AUTH_EXEC) return false;
  if (filters.count(executablePath(message)) == 0) return false;

  // Filters of one job are judged one after the other, waits included.
  std::lock_guard<std::mutex> lock(filterMutex);
  if (!handleCupsFilterEvent(message)) return false;
  api.respondAuthResult(client, message, ES_AUTH_RESULT_DENY, false);
  return true;
}

void PrinterEventObserver::handleCupsSocketEvent(const es_message_t* message) {
  std::lock_guard<std::mutex> lock(socketMutex);
  LOG_ASSERT(message, "Received event is null");
  if (message == nullptr) return;
  const es_process_t* process = message->process;
  LOG_ASSERT(process, "Process of the event is null");
  if (process == nullptr) return;

  const pid_t pid = audit_token_to_pid(process->audit_token);
  std::string signingId;
  if (process->signing_id.length != 0 && process->signing_id.data != nullptr) {
    signingId = process->signing_id.data;
  }
  if (process->is_platform_binary && printUtilities().count(signingId) != 0) {
    LOG_DEBUG("<socket> event skipped %{public}s %d", signingId.c_str(), pid);
    return;
  }
  submitterPid = static_cast<uint32_t>(pid);
  LOG_DEBUG("<socket> event handled %{public}s %d", signingId.c_str(), pid);
}

void PrinterEventObserver::handleCupsFileEvent(const std::string& filename) {
  sysext::PrinterEvent event;
  {
    // Whoever connected last; jobs are not matched to submitters.
    std::lock_guard<std::mutex> lock(socketMutex);
    event.set_filename(filename);
    event.set_pid(submitterPid);
  }
  std::lock_guard<std::mutex> lock(verdictMutex);
  LOG_DEBUG("<data file> event %{public}s for pid: %d", filename.c_str(), event.pid());
  if (verdicts.count(filename) != 0) return;  // each data file is reported once
  LOG_DEBUG("<data file> sending request for %{public}s", filename.c_str());
  verdicts[filename] = AuthResult::Pending;
  SysExtXPCClient::sharedInstance().sendPrinterEvent(&event);
}

bool PrinterEventObserver::handleCupsFilterEvent(const es_message_t* message) {
  const std::string program = executablePath(message);
  LOG_DEBUG("<filter> event: %{public}s", program.c_str());
  std::vector<std::string> args;
  cmdArgs(&message->event, args);

  bool deny = false;
  for (const std::string& arg : args) {
    if (!arg.starts_with(paths.spoolPrefix)) continue;
    LOG_DEBUG("<filter> %{public}s access to data file: %{public}s", program.c_str(), arg.c_str());
    // Read once: a verdict that arrives during the wait applies to later
    // executions only.
    const AuthResult verdict = getPrinterEventVerdict(arg);
    for (int waitedMs = 0; verdict == AuthResult::Pending && waitedMs <= kMaxWaitedMs;
         waitedMs += static_cast<int>(kVerdictPoll.count())) {
      sleep(kVerdictPoll);
    }
    if (verdict == AuthResult::Blocked) deny = true;
  }
  return deny;
}

void PrinterEventObserver::cmdArgs(const es_events_t* event, std::vector<std::string>& args) const {
  const uint32_t count = api.execArgCount(&event->exec);
  for (uint32_t i = 1; i < count; ++i) {
    const es_string_token_t arg = api.execArg(&event->exec, i);
    args.emplace_back(arg.data != nullptr ? arg.data : "");
  }
}

void PrinterEventObserver::setPrinterEventVerdict(const std::string& filename, bool verdict) {
  std::lock_guard<std::mutex> lock(verdictMutex);
  verdicts[filename] = verdict ? AuthResult::Allowed : AuthResult::Blocked;
  LOG_DEBUG("<data file> recieved verdict for %{public}s %d", filename.c_str(), verdict ? 1 : 0);
}

PrinterEventObserver::AuthResult PrinterEventObserver::getPrinterEventVerdict(
    const std::string& filename) {
  std::lock_guard<std::mutex> lock(verdictMutex);
  auto it = verdicts.find(filename);
  if (it != verdicts.end()) return it->second;
  // A data file never reported is blocked.
  LOG_DEBUG("<data file> failed to find auth verdict for %{public}s", filename.c_str());
  return AuthResult::Blocked;
}

}  // namespace endpointsecurity
