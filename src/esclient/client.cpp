#include "esclient/client.h"

#include <bsm/libbsm.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <thread>

#include "log/log.h"
#include "rtn/clock.h"
#include "xpc/xpcclient.h"

LUMO_LOG_MODULE("MAC_ESCLIENT")
LUMO_LOG_EXTRA_MODULE(kMetricsLog, "MAC_LUMOMETRICS")

namespace endpointsecurity {

using tarvex::itx::rtn::QosClass;

namespace {
constexpr const char* kAuthQueueLabel = "com.tarvex.lumo.es-app_auth";
constexpr const char* kAuthDeadlineQueueLabel = "com.tarvex.lumo.es-app_auth_deadline";
constexpr const char* kNotifyQueueLabel = "com.tarvex.lumo.es-app_notify";
// The watchdog answers once this share of the time left to the deadline
// has passed.
constexpr double kDeadlineShare = 0.8;
}  // namespace

// A message between delivery and the end of its handling, retained and
// counted as in flight. For AUTH the auth block owns it; the watchdog only
// looks at it while it is still alive, so the message is released as soon
// as the observers are done with it.
struct Client::HeldMessage {
  HeldMessage(Client& owner, const es_message_t* msg) : client(owner), message(owner.api, msg) {
    client.inFlight.fetch_add(1);
  }
  ~HeldMessage() {
    // Answered in time: its deadline watch has nothing left to do.
    if (watchdog) watchdog->cancel();
    message.reset();
    client.leaveFlight();
  }
  Client& client;
  RetainedMessage message;
  std::atomic<bool> answered{false};
  tarvex::itx::rtn::TimerRef watchdog;  // AUTH only; set before the auth block is queued
};

Client::Client(const tarvex::itx::rtn::Platform& seams)
    : api(*seams.es), dispatch(*seams.dispatch), clock(*seams.clock) {}

Client::~Client() {
  // Blocks on the queues point back here: let them finish first. Polled
  // rather than waited on: this runs once, when the client is torn down,
  // and atomic waits are not in the C++ library of every macOS it runs on.
  while (inFlight.load() != 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

void Client::leaveFlight() { inFlight.fetch_sub(1); }

bool Client::init() {
  timebase = clock.timebase();
  pid = getpid();
  LOG_INFO("SysExt started, pid: %d, build date: %{public}s, build time: %{public}s", pid,
           __DATE__, __TIME__);

  authQueue = dispatch.createConcurrentQueue(kAuthQueueLabel, QosClass::UserInteractive);
  authDeadlineQueue =
      dispatch.createConcurrentQueue(kAuthDeadlineQueueLabel, QosClass::UserInteractive);
  notifyQueue = dispatch.createConcurrentQueue(kNotifyQueueLabel, QosClass::Default);

  es_client_t* handle = nullptr;
  const es_new_client_result_t result = api.newClient(
      &handle, [this](es_client_t*, const es_message_t* message) { handleMessage(message); });
  if (result == ES_NEW_CLIENT_RESULT_SUCCESS && handle != nullptr) {
    esClient.store(handle);
    const es_clear_cache_result_t cleared = api.clearCache(handle);
    if (cleared != ES_CLEAR_CACHE_RESULT_SUCCESS) {
      LOG_ERROR("es_clear_cache failed. Continues to es_subscribe anyway. Err:%d", cleared);
    }
    return true;
  }
  switch (result) {
    case ES_NEW_CLIENT_RESULT_ERR_INVALID_ARGUMENT:
      LOG_ERROR("es_new_client failed. One or more invalid arguments were provided. Error: %d",
                result);
      break;
    case ES_NEW_CLIENT_RESULT_ERR_INTERNAL:
      LOG_ERROR("es_new_client failed. Communication with the ES subsystem failed. Error: %d",
                result);
      break;
    case ES_NEW_CLIENT_RESULT_ERR_NOT_ENTITLED:
      LOG_ERROR(
          "es_new_client failed. The caller is not properly entitled to connect. Error: %d",
          result);
      break;
    case ES_NEW_CLIENT_RESULT_ERR_NOT_PERMITTED:
      LOG_ERROR(
          "es_new_client failed. The caller is not permitted to connect. They lack Transparency, "
          "Consent, and Control (TCC) approval form the user. Full Disk Access granted ? Error: %d",
          result);
      break;
    case ES_NEW_CLIENT_RESULT_ERR_NOT_PRIVILEGED:
      LOG_ERROR("es_new_client failed. The caller is not running as root. Error: %d", result);
      break;
    case ES_NEW_CLIENT_RESULT_ERR_TOO_MANY_CLIENTS:
      LOG_ERROR(
          "es_new_client failed. The caller has reached the maximum number of allowed "
          "simultaneously connected clients. Error: %d",
          result);
      break;
    default:
      LOG_ERROR("es_new_client failed with error: %d", result);
      break;
  }
  return false;
}

bool Client::registerObserver(EventObserver* observer) {
  if (observer == nullptr) return false;
  for (es_event_type_t type : observer->eventTypes()) {
    LOG_TRACE("Adding event %d of observer %{public}s to client %{public}s", type,
              observer->getName().c_str(), name.c_str());
    observers.emplace(type, observer);
  }
  return true;
}

bool Client::start() {
  es_client_t* handle = esClient.load();
  if (handle == nullptr) {
    LOG_ERROR("client was not inited properly");
    return false;
  }
  if (observers.empty()) {
    LOG_ERROR("no any observers were registered for notifications");
    return false;
  }
  std::vector<es_event_type_t> types;
  for (const auto& [type, observer] : observers) {
    if (types.empty() || types.back() != type) types.push_back(type);
  }
  if (api.subscribe(handle, types.data(), static_cast<uint32_t>(types.size())) !=
      ES_RETURN_SUCCESS) {
    LOG_ERROR("es_subscribe failed");
    return false;
  }
  LOG_INFO("es_subscribe succedded (%d events)", static_cast<int>(types.size()));
  return true;
}

bool Client::stop() {
  shuttingDown.store(true);
  es_client_t* handle = esClient.exchange(nullptr);
  if (handle != nullptr) {
    if (api.deleteClient(handle) == ES_RETURN_SUCCESS) {
      LOG_INFO("Success deleting ES Client.");
    } else {
      LOG_ERROR("Error deleting ES Client.");
    }
  }
  return true;
}

bool Client::switchMode(const flag_set<CLIENT_OBSERVER_TAGS>& tags, bool activate) {
  if (shuttingDown.load()) {
    LOG_DEBUG("Ignoring event because System Extension is shutting down.");
    return true;
  }
  es_client_t* handle = esClient.load();
  if (handle == nullptr) {
    LOG_ERROR("client was not initiated properly");
    return false;
  }
  if (observers.empty()) {
    LOG_ERROR("no observers were registered for notifications");
    return false;
  }

  // An event type changes only when the switched group uses it and no
  // active observer outside the group still needs it.
  std::vector<es_event_type_t> changes;
  for (const auto& [type, observer] : observers) {
    if (!observer->tags().intersects(tags) || observer->isActive() == activate) {
      LOG_TRACE("Skipping Observer %{public}s", observer->getName().c_str());
      continue;
    }
    bool groupUses = false;
    bool othersUse = false;
    auto range = observers.equal_range(type);
    for (auto it = range.first; it != range.second; ++it) {
      if (it->second->tags().intersects(tags)) {
        groupUses = true;
      } else if (it->second->isActive()) {
        othersUse = true;
      } else {
        LOG_TRACE("Not counting deactivated observers");
      }
    }
    if (groupUses && !othersUse) changes.push_back(type);
  }

  if (changes.empty()) return true;
  const auto count = static_cast<uint32_t>(changes.size());
  if (activate) {
    if (api.subscribe(handle, changes.data(), count) != ES_RETURN_SUCCESS) {
      LOG_ERROR("es_subscribe failed");
      return false;
    }
    LOG_DEBUG("es_subscribe succeeded - subscribed to %d events", static_cast<int>(count));
  } else {
    if (api.unsubscribe(handle, changes.data(), count) != ES_RETURN_SUCCESS) {
      LOG_ERROR("es_unsubscribe failed");
      return false;
    }
    LOG_DEBUG("es_unsubscribe succeeded - unsubscribed from %d events", static_cast<int>(count));
  }
  return true;
}

void Client::respondDefault(const es_message_t* message) {
  es_client_t* handle = esClient.load();
  if (handle == nullptr) return;
  if (message->event_type == ES_EVENT_TYPE_AUTH_OPEN) {
    api.respondFlagsResult(handle, message, 0xFFFFFFFFu, false);
  } else {
    api.respondAuthResult(handle, message, ES_AUTH_RESULT_ALLOW, false);
  }
}

// Runs on the facility's delivery thread: mute, retain, schedule, return.
void Client::handleMessage(const es_message_t* message) {
  if (checkAndMute(message)) return;

  if (message->action_type == ES_ACTION_TYPE_AUTH) {
    dispatchAuth(message);
  } else if (message->action_type == ES_ACTION_TYPE_NOTIFY) {
    if (!SysExtXPCClient::sharedInstance().isXPCServiceListening()) return;
    // The block owns it: a raw pointer fits in the task without an
    // allocation of its own, and every queued block runs (the destructor
    // waits for them).
    auto* held = new HeldMessage(*this, message);
    notifyQueue->async([held] {
      std::unique_ptr<HeldMessage> owned(held);
      owned->client.onNotify(owned->message.get());
    });
  }
}

void Client::dispatchAuth(const es_message_t* message) {
  auto pending = std::make_shared<HeldMessage>(*this, message);

  const uint64_t now = clock.now();
  const auto deadline_delta_tics =
      static_cast<uint64_t>(static_cast<double>(message->deadline - now) * kDeadlineShare);
  LOG_ASSERT(deadline_delta_tics > 0, "");

  std::weak_ptr<HeldMessage> watched = pending;
  pending->watchdog = dispatch.after(now + deadline_delta_tics, authDeadlineQueue, [watched] {
    std::shared_ptr<HeldMessage> auth = watched.lock();
    if (!auth) return;  // the auth block is done with it
    auth->client.onDeadline(*auth);
  });
  authQueue->async([pending] {
    if (!pending->answered.load()) {
      pending->client.onAuth(pending->message.get());
      pending->answered.store(true);
    }
  });
}

void Client::onDeadline(HeldMessage& auth) {
  if (auth.answered.load() || esClient.load() == nullptr) return;
  const es_message_t* message = auth.message.get();
  respondDefault(message);
  auth.answered.store(true);

  const es_file_t* executable = message->process != nullptr ? message->process->executable
                                                            : nullptr;
  const char* path = executable != nullptr ? executable->path.data : nullptr;
  const size_t pathLength = path != nullptr ? executable->path.length : 0;
  const pid_t processPid =
      message->process != nullptr ? audit_token_to_pid(message->process->audit_token) : 0;
  LOG_ASSERT(0,
             "ATTENTION ! Auth deadline is reached for pid: %{public}s (%d). Deadline:%d "
             "Proc:%{public}s",
             pathLength == 0 ? "<empty>" : path, processPid,
             static_cast<int>(static_cast<uint32_t>(message->deadline)),
             path != nullptr ? path : "");
}

void Client::onAuth(const es_message_t* message) {
  if (shuttingDown.load()) {
    LOG_DEBUG("Ignoring event because System Extension is shutting down.");
    return;
  }
  bool answered = false;
  auto range = observers.equal_range(message->event_type);
  for (auto it = range.first; it != range.second; ++it) {
    if (shuttingDown.load()) {
      LOG_DEBUG("Ignoring event because System Extension is shutting down.");
      return;
    }
    EventObserver* observer = it->second;
    if (observer->isActive() && observer->onAuth(message, esClient.load())) answered = true;
  }
  if (!answered) respondDefault(message);
}

void Client::onNotify(const es_message_t* message) {
  if (shuttingDown.load()) {
    LOG_DEBUG("Ignoring event because System Extension is shutting down.");
    return;
  }
  auto range = observers.equal_range(message->event_type);
  for (auto it = range.first; it != range.second; ++it) {
    if (shuttingDown.load()) {
      LOG_DEBUG("Ignoring event because System Extension is shutting down.");
      return;
    }
    EventObserver* observer = it->second;
    if (observer->isActive()) observer->onNotify(message, esClient.load());
  }
}

}  // namespace endpointsecurity
