#include "support/fake_es.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

namespace lumo::testing {

FakeEndpointSecurity::FakeEndpointSecurity() = default;

FakeEndpointSecurity::~FakeEndpointSecurity() {
  for (const auto& [message, count] : refs_) {
    // The message itself may be gone by now: name it by address only.
    EXPECT_EQ(count, 0) << "message " << static_cast<const void*>(message)
                        << " leaked: retained " << count << " more time(s) than released";
  }
}

void FakeEndpointSecurity::failCall(Call call, bool fail) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (fail) {
    failing_.insert(call);
  } else {
    failing_.erase(call);
  }
}

void FakeEndpointSecurity::setNewClientResult(es_new_client_result_t result, bool returnHandle) {
  std::lock_guard<std::mutex> lock(mutex_);
  newClientResult_ = result;
  newClientHandle_ = returnHandle;
}

bool FakeEndpointSecurity::shouldFail(Call call) {
  ++calls_[call];
  return failing_.count(call) != 0;
}

FakeEndpointSecurity::ClientState* FakeEndpointSecurity::stateOf(es_client_t* client) {
  auto* state = reinterpret_cast<ClientState*>(client);
  for (const auto& c : clients_) {
    if (c.get() == state) return state;
  }
  ADD_FAILURE() << "call on an unknown ES client handle " << client;
  return nullptr;
}

void FakeEndpointSecurity::deliver(const es_message_t* message, size_t clientIndex) {
  endpointsecurity::MessageHandler handler;
  es_client_t* handle = nullptr;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    ASSERT_LT(clientIndex, clients_.size()) << "no ES client to deliver to";
    ClientState& state = *clients_[clientIndex];
    ASSERT_FALSE(state.deleted) << "delivery to a deleted client";
    handler = state.handler;
    handle = reinterpret_cast<es_client_t*>(&state);
    ++refs_[message];
  }
  handler(handle, message);
  releaseMessage(message);
}

bool FakeEndpointSecurity::waitForAnswers(const es_message_t* message, size_t n,
                                          std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] {
    auto it = answers_.find(message);
    return it != answers_.end() && it->second.size() >= n;
  });
}

bool FakeEndpointSecurity::waitForReleased(std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] {
    return std::all_of(refs_.begin(), refs_.end(), [](const auto& r) { return r.second == 0; });
  });
}

std::vector<FakeEndpointSecurity::Answer> FakeEndpointSecurity::answers(
    const es_message_t* message) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = answers_.find(message);
  return it == answers_.end() ? std::vector<Answer>{} : it->second;
}

std::set<es_event_type_t> FakeEndpointSecurity::subscriptions(size_t clientIndex) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return clientIndex < clients_.size() ? clients_[clientIndex]->subscribed
                                       : std::set<es_event_type_t>{};
}

std::vector<FakeEndpointSecurity::SubscriptionCall> FakeEndpointSecurity::subscriptionCalls(
    size_t clientIndex) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return clientIndex < clients_.size() ? clients_[clientIndex]->calls
                                       : std::vector<SubscriptionCall>{};
}

std::vector<std::string> FakeEndpointSecurity::mutedPrefixes() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return mutedPrefixes_;
}

std::vector<std::string> FakeEndpointSecurity::mutedLiterals() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return mutedLiterals_;
}

std::vector<audit_token_t> FakeEndpointSecurity::mutedProcessTokens() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return mutedProcesses_;
}

size_t FakeEndpointSecurity::callCount(Call call) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = calls_.find(call);
  return it == calls_.end() ? 0 : it->second;
}

size_t FakeEndpointSecurity::clientCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return clients_.size();
}

bool FakeEndpointSecurity::clientDeleted(size_t clientIndex) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return clientIndex < clients_.size() && clients_[clientIndex]->deleted;
}

int FakeEndpointSecurity::retainCount(const es_message_t* message) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = refs_.find(message);
  return it == refs_.end() ? 0 : it->second;
}

void FakeEndpointSecurity::addMutedProcess(const audit_token_t& token) {
  std::lock_guard<std::mutex> lock(mutex_);
  mutedProcesses_.push_back(token);
}

es_new_client_result_t FakeEndpointSecurity::newClient(es_client_t** client,
                                                      endpointsecurity::MessageHandler handler) {
  std::lock_guard<std::mutex> lock(mutex_);
  ++calls_[Call::NewClient];
  if (newClientResult_ != ES_NEW_CLIENT_RESULT_SUCCESS || !newClientHandle_) {
    *client = nullptr;
    return newClientResult_;
  }
  clients_.push_back(std::make_unique<ClientState>());
  clients_.back()->handler = std::move(handler);
  *client = reinterpret_cast<es_client_t*>(clients_.back().get());
  return ES_NEW_CLIENT_RESULT_SUCCESS;
}

es_return_t FakeEndpointSecurity::deleteClient(es_client_t* client) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (shouldFail(Call::DeleteClient)) return ES_RETURN_ERROR;
  ClientState* state = stateOf(client);
  if (state == nullptr) return ES_RETURN_ERROR;
  EXPECT_FALSE(state->deleted) << "ES client deleted twice";
  state->deleted = true;
  return ES_RETURN_SUCCESS;
}

es_clear_cache_result_t FakeEndpointSecurity::clearCache(es_client_t* client) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (shouldFail(Call::ClearCache)) return ES_CLEAR_CACHE_RESULT_ERR_THROTTLE;
  stateOf(client);
  return ES_CLEAR_CACHE_RESULT_SUCCESS;
}

es_return_t FakeEndpointSecurity::subscribe(es_client_t* client, const es_event_type_t* events,
                                            uint32_t count) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (shouldFail(Call::Subscribe)) return ES_RETURN_ERROR;
  ClientState* state = stateOf(client);
  if (state == nullptr) return ES_RETURN_ERROR;
  state->calls.push_back({true, std::vector<es_event_type_t>(events, events + count)});
  state->subscribed.insert(events, events + count);
  return ES_RETURN_SUCCESS;
}

es_return_t FakeEndpointSecurity::unsubscribe(es_client_t* client, const es_event_type_t* events,
                                              uint32_t count) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (shouldFail(Call::Unsubscribe)) return ES_RETURN_ERROR;
  ClientState* state = stateOf(client);
  if (state == nullptr) return ES_RETURN_ERROR;
  state->calls.push_back({false, std::vector<es_event_type_t>(events, events + count)});
  for (uint32_t i = 0; i < count; ++i) state->subscribed.erase(events[i]);
  return ES_RETURN_SUCCESS;
}

void FakeEndpointSecurity::record(const es_message_t* message, const Answer& answer) {
  EXPECT_GT(refs_[message], 0) << "answer to a message that is no longer retained";
  answers_[message].push_back(answer);
  changed_.notify_all();
}

es_respond_result_t FakeEndpointSecurity::respondAuthResult(es_client_t* client,
                                                           const es_message_t* message,
                                                           es_auth_result_t result, bool cache) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (shouldFail(Call::RespondAuth)) return ES_RESPOND_RESULT_ERR_INTERNAL;
  stateOf(client);
  record(message, {ES_RESULT_TYPE_AUTH, result, 0, cache});
  return ES_RESPOND_RESULT_SUCCESS;
}

es_respond_result_t FakeEndpointSecurity::respondFlagsResult(es_client_t* client,
                                                            const es_message_t* message,
                                                            uint32_t authorizedFlags,
                                                            bool cache) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (shouldFail(Call::RespondFlags)) return ES_RESPOND_RESULT_ERR_INTERNAL;
  stateOf(client);
  record(message, {ES_RESULT_TYPE_FLAGS, ES_AUTH_RESULT_ALLOW, authorizedFlags, cache});
  return ES_RESPOND_RESULT_SUCCESS;
}

void FakeEndpointSecurity::retainMessage(const es_message_t* message) {
  std::lock_guard<std::mutex> lock(mutex_);
  int& count = refs_[message];
  EXPECT_GT(count, 0) << "retain of a message that was already released";
  ++count;
}

void FakeEndpointSecurity::releaseMessage(const es_message_t* message) {
  std::lock_guard<std::mutex> lock(mutex_);
  int& count = refs_[message];
  EXPECT_GT(count, 0) << "message " << message << " released more often than retained";
  --count;
  changed_.notify_all();
}

es_return_t FakeEndpointSecurity::muteProcess(es_client_t* client, const audit_token_t* token) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (shouldFail(Call::MuteProcess)) return ES_RETURN_ERROR;
  stateOf(client);
  mutedProcesses_.push_back(*token);
  return ES_RETURN_SUCCESS;
}

es_return_t FakeEndpointSecurity::unmuteProcess(es_client_t* client, const audit_token_t* token) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (shouldFail(Call::UnmuteProcess)) return ES_RETURN_ERROR;
  stateOf(client);
  auto it = std::find_if(mutedProcesses_.begin(), mutedProcesses_.end(), [&](const auto& t) {
    return std::memcmp(&t, token, sizeof t) == 0;
  });
  if (it != mutedProcesses_.end()) mutedProcesses_.erase(it);
  return ES_RETURN_SUCCESS;
}

es_return_t FakeEndpointSecurity::mutedProcesses(es_client_t* client, size_t* count,
                                                 audit_token_t** tokens) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (shouldFail(Call::MutedProcesses)) return ES_RETURN_ERROR;
  stateOf(client);
  *count = mutedProcesses_.size();
  *tokens = new audit_token_t[mutedProcesses_.size() + 1];
  std::copy(mutedProcesses_.begin(), mutedProcesses_.end(), *tokens);
  return ES_RETURN_SUCCESS;
}

void FakeEndpointSecurity::releaseMutedProcesses(audit_token_t* tokens, size_t) {
  delete[] tokens;
}

es_return_t FakeEndpointSecurity::mutePathPrefix(es_client_t* client, const char* prefix) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (shouldFail(Call::MutePathPrefix)) return ES_RETURN_ERROR;
  stateOf(client);
  mutedPrefixes_.emplace_back(prefix);
  return ES_RETURN_SUCCESS;
}

es_return_t FakeEndpointSecurity::mutePathLiteral(es_client_t* client, const char* path) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (shouldFail(Call::MutePathLiteral)) return ES_RETURN_ERROR;
  stateOf(client);
  mutedLiterals_.emplace_back(path);
  return ES_RETURN_SUCCESS;
}

es_return_t FakeEndpointSecurity::unmuteAllPaths(es_client_t* client) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (shouldFail(Call::UnmuteAllPaths)) return ES_RETURN_ERROR;
  stateOf(client);
  mutedPrefixes_.clear();
  mutedLiterals_.clear();
  return ES_RETURN_SUCCESS;
}

uint32_t FakeEndpointSecurity::execArgCount(const es_event_exec_t* event) {
  return static_cast<uint32_t>(event->args.size);
}

es_string_token_t FakeEndpointSecurity::execArg(const es_event_exec_t* event, uint32_t index) {
  // The message builder keeps the arguments as an array of strings.
  const auto* args = reinterpret_cast<const std::string*>(event->args.data);
  if (args == nullptr || index >= event->args.size) return {0, nullptr};
  return {args[index].size(), args[index].c_str()};
}

}  // namespace lumo::testing
