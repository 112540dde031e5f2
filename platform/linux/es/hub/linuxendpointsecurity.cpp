#include "es/hub/linuxendpointsecurity.h"

#include <time.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <memory_resource>

#include "log/log.h"

LUMO_LOG_MODULE("LINUX_ES")

namespace endpointsecurity::linux_es {

using tarvex::itx::rtn::QosClass;

namespace {

constexpr const char* kFailsafeQueueLabel = "com.tarvex.lumo.es-facility_failsafe";
// How long an AUTH waits for the clients to release the moves before it.
constexpr std::chrono::milliseconds kMovePatience{100};
// ES access flags of an open, as the ES API passes them.
constexpr uint32_t kFRead = 0x1;
constexpr uint32_t kFWrite = 0x2;

const char* pathOf(const es_process_t* process) {
  if (process == nullptr || process->executable == nullptr) return nullptr;
  return process->executable->path.data;
}

bool pathMuted(ClientState& client, const char* path) {
  if (path == nullptr) return false;
  const std::string_view p(path);
  if (client.mutedLiterals.find(p) != client.mutedLiterals.end()) return true;
  return std::any_of(client.mutedPrefixes.begin(), client.mutedPrefixes.end(),
                     [&](const std::string& prefix) { return p.starts_with(prefix); });
}

bool tokenMuted(ClientState& client, const es_process_t* process) {
  if (process == nullptr || client.mutedProcesses.empty()) return false;
  const auto key = std::make_pair(audit_token_to_pid(process->audit_token),
                                  process->audit_token.val[7]);
  return client.mutedProcesses.count(key) != 0;
}

}  // namespace

LinuxEndpointSecurity::LinuxEndpointSecurity(tarvex::itx::rtn::IClock& clock,
                                             tarvex::itx::rtn::IDispatch& dispatch,
                                             std::string procRoot)
    : clock_(clock),
      dispatch_(dispatch),
      failsafeQueue_(dispatch.createConcurrentQueue(kFailsafeQueueLabel,
                                                    QosClass::UserInteractive)),
      reader_(std::move(procRoot)),
      cache_(reader_),
      moves_(kMovePatience) {}

LinuxEndpointSecurity::~LinuxEndpointSecurity() { shutdown(); }

void LinuxEndpointSecurity::addSource(std::unique_ptr<IEventSource> source) {
  std::lock_guard<std::mutex> lock(sourcesMutex_);
  {
    std::lock_guard<std::mutex> catchUpLock(catchUpMutex_);
    catchUpSources_.push_back(source.get());
  }
  sources_.push_back(std::move(source));
}

void LinuxEndpointSecurity::catchUp() { catchUpOthers(nullptr); }

// In the order the sources were added: the facility adds those whose
// events others depend on first.
void LinuxEndpointSecurity::catchUpOthers(const IEventSource* asking) {
  std::lock_guard<std::mutex> lock(catchUpMutex_);
  for (IEventSource* source : catchUpSources_) {
    if (source != asking) source->catchUp();
  }
}

void LinuxEndpointSecurity::shutdown() {
  std::lock_guard<std::mutex> lock(sourcesMutex_);
  for (auto& source : sources_) source->stop();
}

ClientState* LinuxEndpointSecurity::stateOf(es_client_t* client) {
  return reinterpret_cast<ClientState*>(client);
}

es_new_client_result_t LinuxEndpointSecurity::newClient(es_client_t** client,
                                                        MessageHandler handler) {
  if (client == nullptr || !handler) return ES_NEW_CLIENT_RESULT_ERR_INVALID_ARGUMENT;
  auto state = std::make_unique<ClientState>();
  state->handler = std::move(handler);
  std::unique_lock<std::shared_mutex> lock(clientsMutex_);
  *client = reinterpret_cast<es_client_t*>(state.get());
  clients_.push_back(std::move(state));
  return ES_NEW_CLIENT_RESULT_SUCCESS;
}

es_return_t LinuxEndpointSecurity::deleteClient(es_client_t* client) {
  if (client == nullptr) return ES_RETURN_ERROR;
  {
    // Waits for deliveries in progress: afterwards the handler is not
    // called again.
    std::unique_lock<std::shared_mutex> lock(clientsMutex_);
    ClientState* state = stateOf(client);
    std::lock_guard<std::mutex> stateLock(state->mutex);
    if (state->deleted) return ES_RETURN_ERROR;
    state->deleted = true;
    state->subscribed.reset();
  }
  applyUnion();
  return ES_RETURN_SUCCESS;
}

es_clear_cache_result_t LinuxEndpointSecurity::clearCache(es_client_t*) {
  // Nothing is cached: answers are never reused.
  return ES_CLEAR_CACHE_RESULT_SUCCESS;
}

es_return_t LinuxEndpointSecurity::changeSubscription(es_client_t* client,
                                                      const es_event_type_t* events,
                                                      uint32_t count, bool on) {
  if (client == nullptr || (events == nullptr && count != 0)) return ES_RETURN_ERROR;
  for (uint32_t i = 0; i < count; ++i) {
    if (events[i] >= ES_EVENT_TYPE_LAST) {
      LOG_ERROR("Event type %d is outside the known range.", static_cast<int>(events[i]));
      return ES_RETURN_ERROR;
    }
  }
  {
    ClientState* state = stateOf(client);
    std::lock_guard<std::mutex> lock(state->mutex);
    if (state->deleted) return ES_RETURN_ERROR;
    for (uint32_t i = 0; i < count; ++i) state->subscribed.set(events[i], on);
  }
  applyUnion();
  return ES_RETURN_SUCCESS;
}

es_return_t LinuxEndpointSecurity::subscribe(es_client_t* client, const es_event_type_t* events,
                                             uint32_t count) {
  return changeSubscription(client, events, count, true);
}

es_return_t LinuxEndpointSecurity::unsubscribe(es_client_t* client,
                                               const es_event_type_t* events, uint32_t count) {
  return changeSubscription(client, events, count, false);
}

void LinuxEndpointSecurity::applyUnion() {
  std::lock_guard<std::mutex> sourcesLock(sourcesMutex_);
  EventSet all;
  {
    std::shared_lock<std::shared_mutex> lock(clientsMutex_);
    for (auto& client : clients_) {
      std::lock_guard<std::mutex> stateLock(client->mutex);
      all |= client->subscribed;
    }
  }
  // Messages flow as soon as a source runs, so the hub wants them first.
  const EventSet low = all & EventSet(UINT64_MAX);
  wanted_[0].store(low.to_ullong());
  wanted_[1].store((all >> 64).to_ullong());

  EventSet covered;
  for (auto& source : sources_) {
    const EventSet mine = all & source->types();
    covered |= source->types();
    if (!source->apply(mine)) {
      LOG_ERROR("Event source %{public}s could not follow the subscriptions fully.",
                source->name());
    }
  }
  const EventSet missing = all & ~covered & ~warnedMissing_;
  for (size_t type = 0; type < missing.size(); ++type) {
    if (!missing.test(type)) continue;
    LOG_WARN("No event source on this machine produces event type %d; it stays silent.",
             static_cast<int>(type));
  }
  warnedMissing_ |= missing;
}

bool LinuxEndpointSecurity::wants(es_event_type_t type) const {
  if (type >= ES_EVENT_TYPE_LAST) return false;
  return (wanted_[type / 64].load(std::memory_order_relaxed) >> (type % 64)) & 1u;
}

bool LinuxEndpointSecurity::muted(ClientState& client, const es_message_t& message) {
  if (tokenMuted(client, message.process) || pathMuted(client, pathOf(message.process))) {
    return true;
  }
  // The new image of an exec is the process from now on.
  if (message.event_type == ES_EVENT_TYPE_NOTIFY_EXEC ||
      message.event_type == ES_EVENT_TYPE_AUTH_EXEC) {
    return pathMuted(client, pathOf(message.event.exec.target));
  }
  return false;
}

void LinuxEndpointSecurity::deliver(Message* message) {
  es_message_t& es = message->es;
  const bool auth = es.action_type == ES_ACTION_TYPE_AUTH;
  // Notifications of what happened before an exec or open reach the
  // clients before they are asked about it, as they would from the kernel.
  if (auth) {
    catchUp();
    if (!moves_.waitFor(seq_.load())) {
      const uint64_t n = counters_.authAheadOfMoves.fetch_add(1) + 1;
      if ((n & (n - 1)) == 0) {  // 1, 2, 4, 8...: a stuck client does not flood the log
        LOG_WARN("A client held moves for over %d ms; an AUTH went ahead of them (%llu times).",
                 static_cast<int>(kMovePatience.count()), static_cast<unsigned long long>(n));
      }
    }
  }
  if (auth && !message->verdict) message->verdict = std::make_shared<AuthVerdict>(nullptr);
  es.seq_num = es.global_seq_num = seq_.fetch_add(1) + 1;
  es.mach_time = clock_.now();
  if (es.time.tv_sec == 0) clock_gettime(CLOCK_REALTIME, &es.time);
  if (auth) es.deadline = es.mach_time + clock_.nanosToTicks(message->budgetNanos);

  std::shared_lock<std::shared_mutex> lock(clientsMutex_);
  // On the stack: there are few clients, and every event is delivered here.
  alignas(ClientState*) std::array<std::byte, 8 * sizeof(ClientState*)> room;
  std::pmr::monotonic_buffer_resource arena(room.data(), room.size());
  std::pmr::vector<ClientState*> targets(&arena);
  for (auto& client : clients_) {
    std::lock_guard<std::mutex> stateLock(client->mutex);
    if (client->deleted || !client->subscribed.test(es.event_type)) continue;
    if (muted(*client, es)) continue;
    targets.push_back(client.get());
  }
  if (targets.empty()) {
    counters_.unwanted.fetch_add(1, std::memory_order_relaxed);
    if (auth && message->verdict->finish(true)) {
      counters_.authAllowed.fetch_add(1, std::memory_order_relaxed);
    }
    lock.unlock();
    releaseMessage(&es);
    return;
  }
  counters_.delivered.fetch_add(1, std::memory_order_relaxed);
  if (auth) {
    message->answeredBy = std::make_unique<std::atomic<bool>[]>(targets.size());
    message->pendingAnswers.store(static_cast<int>(targets.size()));
    message->targets.assign(targets.begin(), targets.end());
    scheduleFailsafe(*message);
  } else if (es.event_type == ES_EVENT_TYPE_NOTIFY_RENAME) {
    moves_.held(es.seq_num);
    message->heldMove = true;
  }
  for (ClientState* client : targets) {
    client->handler(reinterpret_cast<es_client_t*>(client), &es);
  }
  lock.unlock();
  releaseMessage(&es);
}

void LinuxEndpointSecurity::scheduleFailsafe(Message& message) {
  const es_message_t& es = message.es;
  const char* path = es.event_type == ES_EVENT_TYPE_AUTH_EXEC
                         ? pathOf(es.event.exec.target)
                         : (es.event_type == ES_EVENT_TYPE_AUTH_OPEN && es.event.open.file
                                ? es.event.open.file->path.data
                                : nullptr);
  const pid_t pid = es.process ? audit_token_to_pid(es.process->audit_token) : 0;
  // The verdict cancels it once given: a deadline met costs no wakeup.
  message.verdict->watchedBy(dispatch_.after(
      es.deadline, failsafeQueue_,
      [this, verdict = message.verdict, type = es.event_type, pid,
       what = std::string(path ? path : "")] {
        if (!verdict->finish(true)) return;
        counters_.authFailsafe.fetch_add(1);
        LOG_ERROR("AUTH event %d of pid %d (%{public}s) was not answered by its deadline; allowed.",
                  static_cast<int>(type), pid, what.c_str());
      }));
}

es_respond_result_t LinuxEndpointSecurity::answer(es_client_t* client,
                                                  const es_message_t* message, bool deny) {
  Message* owned = Message::from(message);
  if (client == nullptr || owned == nullptr) return ES_RESPOND_RESULT_ERR_INVALID_ARGUMENT;
  if (message->action_type != ES_ACTION_TYPE_AUTH || !owned->verdict) {
    return ES_RESPOND_RESULT_ERR_EVENT_TYPE;
  }
  ClientState* state = stateOf(client);
  const auto it = std::find(owned->targets.begin(), owned->targets.end(), state);
  if (it == owned->targets.end()) return ES_RESPOND_RESULT_NOT_FOUND;
  const size_t index = static_cast<size_t>(it - owned->targets.begin());
  if (owned->answeredBy[index].exchange(true)) return ES_RESPOND_RESULT_ERR_DUPLICATE_RESPONSE;
  if (deny) {
    if (owned->verdict->finish(false)) counters_.authDenied.fetch_add(1);
  } else if (owned->pendingAnswers.fetch_sub(1) == 1) {
    if (owned->verdict->finish(true)) counters_.authAllowed.fetch_add(1);
  }
  return ES_RESPOND_RESULT_SUCCESS;
}

es_respond_result_t LinuxEndpointSecurity::respondAuthResult(es_client_t* client,
                                                             const es_message_t* message,
                                                             es_auth_result_t result, bool) {
  if (message != nullptr && message->event_type == ES_EVENT_TYPE_AUTH_OPEN) {
    return ES_RESPOND_RESULT_ERR_EVENT_TYPE;  // opens take flags
  }
  return answer(client, message, result != ES_AUTH_RESULT_ALLOW);
}

es_respond_result_t LinuxEndpointSecurity::respondFlagsResult(es_client_t* client,
                                                              const es_message_t* message,
                                                              uint32_t authorizedFlags, bool) {
  if (message != nullptr && message->event_type != ES_EVENT_TYPE_AUTH_OPEN) {
    return ES_RESPOND_RESULT_ERR_EVENT_TYPE;
  }
  const Message* owned = Message::from(message);
  const uint32_t requested =
      owned != nullptr ? owned->requestedFlags & (kFRead | kFWrite) : 0;
  // Every requested access must be granted; with nothing known, any flag.
  const bool deny =
      requested != 0 ? (requested & ~authorizedFlags) != 0 : authorizedFlags == 0;
  return answer(client, message, deny);
}

void LinuxEndpointSecurity::retainMessage(const es_message_t* message) {
  if (Message* owned = Message::from(message)) owned->refs.fetch_add(1);
}

void LinuxEndpointSecurity::releaseMessage(const es_message_t* message) {
  Message* owned = Message::from(message);
  if (owned == nullptr || owned->refs.fetch_sub(1) != 1) return;
  if (owned->verdict && owned->verdict->finish(true)) {
    counters_.authReleasedUnanswered.fetch_add(1);
    LOG_ERROR("AUTH event %d was released without an answer from every client; allowed.",
              static_cast<int>(message->event_type));
  }
  if (owned->heldMove) moves_.released(message->seq_num);
  delete owned;
}

es_return_t LinuxEndpointSecurity::muteProcess(es_client_t* client, const audit_token_t* token) {
  if (client == nullptr || token == nullptr) return ES_RETURN_ERROR;
  ClientState* state = stateOf(client);
  std::lock_guard<std::mutex> lock(state->mutex);
  state->mutedProcesses[{audit_token_to_pid(*token), token->val[7]}] = *token;
  return ES_RETURN_SUCCESS;
}

es_return_t LinuxEndpointSecurity::unmuteProcess(es_client_t* client,
                                                 const audit_token_t* token) {
  if (client == nullptr || token == nullptr) return ES_RETURN_ERROR;
  ClientState* state = stateOf(client);
  std::lock_guard<std::mutex> lock(state->mutex);
  return state->mutedProcesses.erase({audit_token_to_pid(*token), token->val[7]}) != 0
             ? ES_RETURN_SUCCESS
             : ES_RETURN_ERROR;
}

es_return_t LinuxEndpointSecurity::mutedProcesses(es_client_t* client, size_t* count,
                                                  audit_token_t** tokens) {
  if (client == nullptr || count == nullptr || tokens == nullptr) return ES_RETURN_ERROR;
  ClientState* state = stateOf(client);
  std::lock_guard<std::mutex> lock(state->mutex);
  *count = state->mutedProcesses.size();
  *tokens = new audit_token_t[*count + 1]();
  size_t i = 0;
  for (const auto& [key, token] : state->mutedProcesses) (*tokens)[i++] = token;
  return ES_RETURN_SUCCESS;
}

void LinuxEndpointSecurity::releaseMutedProcesses(audit_token_t* tokens, size_t) {
  delete[] tokens;
}

es_return_t LinuxEndpointSecurity::mutePathPrefix(es_client_t* client, const char* prefix) {
  if (client == nullptr || prefix == nullptr || *prefix == '\0') return ES_RETURN_ERROR;
  ClientState* state = stateOf(client);
  std::lock_guard<std::mutex> lock(state->mutex);
  if (std::find(state->mutedPrefixes.begin(), state->mutedPrefixes.end(), prefix) ==
      state->mutedPrefixes.end()) {
    state->mutedPrefixes.emplace_back(prefix);
  }
  return ES_RETURN_SUCCESS;
}

es_return_t LinuxEndpointSecurity::mutePathLiteral(es_client_t* client, const char* path) {
  if (client == nullptr || path == nullptr || *path == '\0') return ES_RETURN_ERROR;
  ClientState* state = stateOf(client);
  std::lock_guard<std::mutex> lock(state->mutex);
  state->mutedLiterals.emplace(path);
  return ES_RETURN_SUCCESS;
}

es_return_t LinuxEndpointSecurity::unmuteAllPaths(es_client_t* client) {
  if (client == nullptr) return ES_RETURN_ERROR;
  ClientState* state = stateOf(client);
  std::lock_guard<std::mutex> lock(state->mutex);
  state->mutedLiterals.clear();
  state->mutedPrefixes.clear();
  return ES_RETURN_SUCCESS;
}

uint32_t LinuxEndpointSecurity::execArgCount(const es_event_exec_t* event) {
  Message* owner = ownerOf(event);
  return owner != nullptr ? owner->argCount() : 0;
}

es_string_token_t LinuxEndpointSecurity::execArg(const es_event_exec_t* event, uint32_t index) {
  Message* owner = ownerOf(event);
  return owner != nullptr ? owner->arg(index) : es_string_token_t{0, nullptr};
}

// An exec event's argument token points at the message that holds them.
Message* LinuxEndpointSecurity::ownerOf(const es_event_exec_t* event) {
  if (event == nullptr || event->args.data == nullptr) return nullptr;
  return reinterpret_cast<Message*>(const_cast<uint8_t*>(event->args.data));
}

}  // namespace endpointsecurity::linux_es
