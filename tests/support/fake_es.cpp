#include "support/fake_es.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

namespace lumo::testing {

namespace {
es_return_t result(bool ok) { return ok ? ES_RETURN_SUCCESS : ES_RETURN_ERROR; }
}  // namespace

FakeEndpointSecurity::~FakeEndpointSecurity() {
  for (const auto& [message, count] : refs_) {
    // The message itself may be gone by now: name it by address only.
    EXPECT_EQ(count, 0) << "message " << static_cast<const void*>(message) << " leaked: retained "
                        << count << " more time(s) than released";
  }
}

template <typename F>
bool FakeEndpointSecurity::act(Call call, es_client_t* client, F change) {
  std::lock_guard<std::mutex> lock(mutex_);
  ++calls_[call];
  if (failing_.count(call) != 0) return false;
  auto* state = reinterpret_cast<ClientState*>(client);
  if (std::none_of(clients_.begin(), clients_.end(), [&](auto& c) { return c.get() == state; })) {
    ADD_FAILURE() << "call on an unknown ES client handle " << client;
    return false;
  }
  change(*state);
  changed_.notify_all();
  return true;
}

void FakeEndpointSecurity::deliver(const es_message_t* message, size_t clientIndex) {
  endpointsecurity::MessageHandler handler;
  ClientState* state = nullptr;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    ASSERT_LT(clientIndex, clients_.size()) << "no ES client to deliver to";
    state = clients_[clientIndex].get();
    ASSERT_FALSE(state->deleted) << "delivery to a deleted client";
    handler = state->handler;
    ++refs_[message];
  }
  handler(reinterpret_cast<es_client_t*>(state), message);
  releaseMessage(message);
}

bool FakeEndpointSecurity::waitUntil(const std::function<bool()>& done) {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, std::chrono::seconds(10), done);
}

bool FakeEndpointSecurity::waitForAnswers(const es_message_t* message, size_t n) {
  return waitUntil([&] { return answers_.count(message) && answers_[message].size() >= n; });
}

bool FakeEndpointSecurity::waitForReleased() {
  return waitUntil([&] {
    return std::all_of(refs_.begin(), refs_.end(), [](const auto& r) { return r.second == 0; });
  });
}

es_new_client_result_t FakeEndpointSecurity::newClient(es_client_t** client,
                                                       endpointsecurity::MessageHandler handler) {
  std::lock_guard<std::mutex> lock(mutex_);
  ++calls_[Call::NewClient];
  *client = nullptr;
  if (newClientResult_ != ES_NEW_CLIENT_RESULT_SUCCESS || !newClientHandle_) {
    return newClientResult_;
  }
  clients_.push_back(std::make_unique<ClientState>());
  clients_.back()->handler = std::move(handler);
  *client = reinterpret_cast<es_client_t*>(clients_.back().get());
  return ES_NEW_CLIENT_RESULT_SUCCESS;
}

es_return_t FakeEndpointSecurity::deleteClient(es_client_t* client) {
  return result(act(Call::DeleteClient, client, [](ClientState& s) {
    EXPECT_FALSE(s.deleted) << "ES client deleted twice";
    s.deleted = true;
  }));
}

es_clear_cache_result_t FakeEndpointSecurity::clearCache(es_client_t* client) {
  return act(Call::ClearCache, client, [](ClientState&) {}) ? ES_CLEAR_CACHE_RESULT_SUCCESS
                                                            : ES_CLEAR_CACHE_RESULT_ERR_THROTTLE;
}

es_return_t FakeEndpointSecurity::subscribe(es_client_t* client, const es_event_type_t* events,
                                            uint32_t count) {
  return result(act(Call::Subscribe, client, [&](ClientState& s) {
    s.calls.push_back({true, {events, events + count}});
    s.subscribed.insert(events, events + count);
  }));
}

es_return_t FakeEndpointSecurity::unsubscribe(es_client_t* client, const es_event_type_t* events,
                                              uint32_t count) {
  return result(act(Call::Unsubscribe, client, [&](ClientState& s) {
    s.calls.push_back({false, {events, events + count}});
    for (uint32_t i = 0; i < count; ++i) s.subscribed.erase(events[i]);
  }));
}

es_respond_result_t FakeEndpointSecurity::respond(Call call, es_client_t* client,
                                                  const es_message_t* message, const Answer& a) {
  const bool ok = act(call, client, [&](ClientState&) {
    EXPECT_GT(refs_[message], 0) << "answer to a message that is no longer retained";
    answers_[message].push_back(a);
  });
  return ok ? ES_RESPOND_RESULT_SUCCESS : ES_RESPOND_RESULT_ERR_INTERNAL;
}

es_respond_result_t FakeEndpointSecurity::respondAuthResult(es_client_t* client,
                                                            const es_message_t* message,
                                                            es_auth_result_t result, bool cache) {
  return respond(Call::RespondAuth, client, message, {ES_RESULT_TYPE_AUTH, result, 0, cache});
}

es_respond_result_t FakeEndpointSecurity::respondFlagsResult(es_client_t* client,
                                                             const es_message_t* message,
                                                             uint32_t flags, bool cache) {
  return respond(Call::RespondFlags, client, message,
                 {ES_RESULT_TYPE_FLAGS, ES_AUTH_RESULT_ALLOW, flags, cache});
}

void FakeEndpointSecurity::retainMessage(const es_message_t* message) {
  std::lock_guard<std::mutex> lock(mutex_);
  const int before = refs_[message]++;
  EXPECT_GT(before, 0) << "retain of a message that was already released";
}

void FakeEndpointSecurity::releaseMessage(const es_message_t* message) {
  std::lock_guard<std::mutex> lock(mutex_);
  const int before = refs_[message]--;
  EXPECT_GT(before, 0) << "message " << message << " released more often than retained";
  changed_.notify_all();
}

es_return_t FakeEndpointSecurity::muteProcess(es_client_t* client, const audit_token_t* token) {
  return result(
      act(Call::MuteProcess, client, [&](ClientState&) { mutedProcesses_.push_back(*token); }));
}

es_return_t FakeEndpointSecurity::unmuteProcess(es_client_t* client, const audit_token_t* token) {
  return result(act(Call::UnmuteProcess, client, [&](ClientState&) {
    std::erase_if(mutedProcesses_, [&](const auto& t) { return !memcmp(&t, token, sizeof t); });
  }));
}

es_return_t FakeEndpointSecurity::mutedProcesses(es_client_t* client, size_t* count,
                                                 audit_token_t** tokens) {
  return result(act(Call::MutedProcesses, client, [&](ClientState&) {
    *count = mutedProcesses_.size();
    *tokens = new audit_token_t[mutedProcesses_.size() + 1];
    std::copy(mutedProcesses_.begin(), mutedProcesses_.end(), *tokens);
  }));
}

es_return_t FakeEndpointSecurity::mutePathPrefix(es_client_t* client, const char* prefix) {
  return result(act(Call::MutePathPrefix, client,
                    [&](ClientState&) { mutedPrefixes_.emplace_back(prefix); }));
}

es_return_t FakeEndpointSecurity::mutePathLiteral(es_client_t* client, const char* path) {
  return result(
      act(Call::MutePathLiteral, client, [&](ClientState&) { mutedLiterals_.emplace_back(path); }));
}

es_return_t FakeEndpointSecurity::unmuteAllPaths(es_client_t* client) {
  return result(act(Call::UnmuteAllPaths, client, [&](ClientState&) {
    mutedPrefixes_.clear();
    mutedLiterals_.clear();
  }));
}

// The message builder keeps the arguments as an array of strings.
uint32_t FakeEndpointSecurity::execArgCount(const es_event_exec_t* event) {
  return static_cast<uint32_t>(event->args.size);
}

es_string_token_t FakeEndpointSecurity::execArg(const es_event_exec_t* event, uint32_t index) {
  const auto* args = reinterpret_cast<const std::string*>(event->args.data);
  if (args == nullptr || index >= event->args.size) return {0, nullptr};
  return {args[index].size(), args[index].c_str()};
}

}  // namespace lumo::testing
