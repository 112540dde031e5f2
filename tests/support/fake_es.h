#pragma once

#include <EndpointSecurity/EndpointSecurity.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "esclient/esapi.h"

namespace lumo::testing {

// An Endpoint Security facility for tests: records what the client asks of
// it, delivers messages the test builds, and checks that every message it
// delivered is released exactly as often as it was retained.
class FakeEndpointSecurity : public endpointsecurity::IEndpointSecurityApi {
 public:
  enum class Call {
    NewClient, DeleteClient, ClearCache, Subscribe, Unsubscribe, RespondAuth, RespondFlags,
    MuteProcess, UnmuteProcess, MutedProcesses, MutePathPrefix, MutePathLiteral, UnmuteAllPaths
  };
  struct Answer {
    es_result_type_t type;
    es_auth_result_t result;  // for AUTH answers
    uint32_t flags;           // for FLAGS answers
    bool cache;
  };
  struct SubscriptionCall {
    bool subscribe;
    std::vector<es_event_type_t> events;
  };

  // Fails the test for every delivered message still retained.
  ~FakeEndpointSecurity() override;

  void failCall(Call call, bool fail = true) {
    locked([&] { fail ? void(failing_.insert(call)) : void(failing_.erase(call)); });
  }
  void setNewClientResult(es_new_client_result_t result, bool returnHandle = true) {
    locked([&] { newClientResult_ = result, newClientHandle_ = returnHandle; });
  }
  // Delivers on the calling thread, which plays the facility's delivery
  // thread: the message is retained by the facility for the handler's run.
  void deliver(const es_message_t* message, size_t clientIndex = 0);
  // Wait until the message has n answers, or until no delivered message is
  // retained any more; false on time-out.
  bool waitForAnswers(const es_message_t* message, size_t n);
  bool waitForReleased();

  std::vector<Answer> answers(const es_message_t* m) const {
    return locked([&] { return answers_.count(m) ? answers_.at(m) : std::vector<Answer>{}; });
  }
  int retainCount(const es_message_t* m) const {
    return locked([&] { return refs_.count(m) ? refs_.at(m) : 0; });
  }
  std::set<es_event_type_t> subscriptions(size_t client = 0) const {
    return locked([&] {
      return client < clients_.size() ? clients_[client]->subscribed : std::set<es_event_type_t>{};
    });
  }
  std::vector<SubscriptionCall> subscriptionCalls(size_t client = 0) const {
    return locked([&] { return clients_.at(client)->calls; });
  }
  bool clientDeleted(size_t client = 0) const {
    return locked([&] { return client < clients_.size() && clients_[client]->deleted; });
  }
  size_t clientCount() const {
    return locked([&] { return clients_.size(); });
  }
  size_t callCount(Call call) const {
    return locked([&] { return calls_.count(call) ? calls_.at(call) : 0; });
  }
  std::vector<std::string> mutedPrefixes() const {
    return locked([&] { return mutedPrefixes_; });
  }
  std::vector<std::string> mutedLiterals() const {
    return locked([&] { return mutedLiterals_; });
  }
  std::vector<audit_token_t> mutedProcessTokens() const {
    return locked([&] { return mutedProcesses_; });
  }
  // Preloads the facility's list of muted processes.
  void addMutedProcess(const audit_token_t& token) {
    locked([&] { mutedProcesses_.push_back(token); });
  }

  // IEndpointSecurityApi
  es_new_client_result_t newClient(es_client_t** client,
                                   endpointsecurity::MessageHandler handler) override;
  es_return_t deleteClient(es_client_t* client) override;
  es_clear_cache_result_t clearCache(es_client_t* client) override;
  es_return_t subscribe(es_client_t* client, const es_event_type_t* events,
                        uint32_t count) override;
  es_return_t unsubscribe(es_client_t* client, const es_event_type_t* events,
                          uint32_t count) override;
  es_respond_result_t respondAuthResult(es_client_t* client, const es_message_t* message,
                                        es_auth_result_t result, bool cache) override;
  es_respond_result_t respondFlagsResult(es_client_t* client, const es_message_t* message,
                                         uint32_t authorizedFlags, bool cache) override;
  void retainMessage(const es_message_t* message) override;
  void releaseMessage(const es_message_t* message) override;
  es_return_t muteProcess(es_client_t* client, const audit_token_t* token) override;
  es_return_t unmuteProcess(es_client_t* client, const audit_token_t* token) override;
  es_return_t mutedProcesses(es_client_t* client, size_t* count, audit_token_t** tokens) override;
  void releaseMutedProcesses(audit_token_t* tokens, size_t) override { delete[] tokens; }
  es_return_t mutePathPrefix(es_client_t* client, const char* prefix) override;
  es_return_t mutePathLiteral(es_client_t* client, const char* path) override;
  es_return_t unmuteAllPaths(es_client_t* client) override;
  uint32_t execArgCount(const es_event_exec_t* event) override;
  es_string_token_t execArg(const es_event_exec_t* event, uint32_t index) override;

 private:
  struct ClientState {
    endpointsecurity::MessageHandler handler;
    std::set<es_event_type_t> subscribed;
    std::vector<SubscriptionCall> calls;
    bool deleted = false;
  };

  template <typename F>
  auto locked(F f) const -> decltype(f()) {
    std::lock_guard<std::mutex> lock(mutex_);
    return f();
  }
  // Counts the call and runs `change` on the client's state unless the test
  // made the call fail or the handle is unknown; true when it ran.
  template <typename F>
  bool act(Call call, es_client_t* client, F change);
  bool waitUntil(const std::function<bool()>& done);
  es_respond_result_t respond(Call call, es_client_t* client, const es_message_t* message,
                              const Answer& answer);

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::unique_ptr<ClientState>> clients_;
  std::set<Call> failing_;
  std::map<Call, size_t> calls_;
  es_new_client_result_t newClientResult_ = ES_NEW_CLIENT_RESULT_SUCCESS;
  bool newClientHandle_ = true;
  std::map<const es_message_t*, int> refs_;
  std::map<const es_message_t*, std::vector<Answer>> answers_;
  std::vector<std::string> mutedPrefixes_;
  std::vector<std::string> mutedLiterals_;
  std::vector<audit_token_t> mutedProcesses_;
};

}  // namespace lumo::testing
