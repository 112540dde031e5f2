#pragma once

#include <EndpointSecurity/EndpointSecurity.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
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
  struct Client {
    std::set<es_event_type_t> subscribed;
    bool deleted = false;
    std::vector<std::string> mutedPrefixes;
    std::vector<std::string> mutedLiterals;
    std::vector<audit_token_t> mutedProcesses;
  };
  // Everything the facility saw, as the test reads it.
  struct Record {
    std::vector<Client> clients;
    std::map<Call, size_t> calls;
    std::map<const es_message_t*, int> retained;
    std::map<const es_message_t*, std::vector<Answer>> answers;
  };

  // Fails the test for every delivered message still retained.
  ~FakeEndpointSecurity() override;

  Record record() const {
    return locked([&] { return record_; });
  }
  std::vector<Answer> answers(const es_message_t* message) const {
    return locked([&] {
      const auto it = record_.answers.find(message);
      return it == record_.answers.end() ? std::vector<Answer>{} : it->second;
    });
  }
  int retainCount(const es_message_t* message) const {
    return locked(
        [&] { return record_.retained.count(message) ? record_.retained.at(message) : 0; });
  }
  // Changes what calls do: fail, or what es_new_client gives.
  void failCall(Call call, bool fail = true) {
    locked([&] { fail ? void(failing_.insert(call)) : void(failing_.erase(call)); });
  }
  void setNewClientResult(es_new_client_result_t result) {
    locked([&] { newClientResult_ = result; });
  }
  void addMutedProcess(const audit_token_t& t, size_t client = 0) {
    locked([&] { record_.clients.at(client).mutedProcesses.push_back(t); });
  }

  // Delivers on the calling thread, which plays the facility's delivery
  // thread: the message is retained by the facility for the handler's run.
  void deliver(const es_message_t* message, size_t clientIndex = 0);
  // Wait until the message has n answers, or until no delivered message is
  // retained any more; false after ten seconds.
  bool waitForAnswers(const es_message_t* message, size_t n) {
    return waitUntil([&] { return record_.answers[message].size() >= n; });
  }
  bool waitForReleased() {
    return waitUntil([&] {
      for (const auto& [message, count] : record_.retained) {
        if (count != 0) return false;
      }
      return true;
    });
  }

  // IEndpointSecurityApi
  es_new_client_result_t newClient(es_client_t** client,
                                   endpointsecurity::MessageHandler handler) override;
  es_return_t deleteClient(es_client_t* client) override;
  es_clear_cache_result_t clearCache(es_client_t* c) override {
    return act(Call::ClearCache, c, [](Client&) {}) ? ES_CLEAR_CACHE_RESULT_SUCCESS
                                                    : ES_CLEAR_CACHE_RESULT_ERR_THROTTLE;
  }
  es_return_t subscribe(es_client_t* c, const es_event_type_t* events, uint32_t n) override {
    return result(
        act(Call::Subscribe, c, [&](Client& s) { s.subscribed.insert(events, events + n); }));
  }
  es_return_t unsubscribe(es_client_t* c, const es_event_type_t* events, uint32_t n) override {
    return result(act(Call::Unsubscribe, c, [&](Client& s) {
      for (uint32_t i = 0; i < n; ++i) s.subscribed.erase(events[i]);
    }));
  }
  es_respond_result_t respondAuthResult(es_client_t* c, const es_message_t* m,
                                        es_auth_result_t result, bool cache) override {
    return respond(Call::RespondAuth, c, m, {ES_RESULT_TYPE_AUTH, result, 0, cache});
  }
  es_respond_result_t respondFlagsResult(es_client_t* c, const es_message_t* m, uint32_t flags,
                                         bool cache) override {
    return respond(Call::RespondFlags, c, m,
                   {ES_RESULT_TYPE_FLAGS, ES_AUTH_RESULT_ALLOW, flags, cache});
  }
  void retainMessage(const es_message_t* message) override;
  void releaseMessage(const es_message_t* message) override;
  es_return_t muteProcess(es_client_t* c, const audit_token_t* token) override {
    return result(
        act(Call::MuteProcess, c, [&](Client& s) { s.mutedProcesses.push_back(*token); }));
  }
  es_return_t unmuteProcess(es_client_t* c, const audit_token_t* token) override;
  es_return_t mutedProcesses(es_client_t* c, size_t* count, audit_token_t** tokens) override {
    return result(act(Call::MutedProcesses, c, [&](Client& s) {
      *count = s.mutedProcesses.size();
      *tokens = new audit_token_t[*count + 1];
      std::copy(s.mutedProcesses.begin(), s.mutedProcesses.end(), *tokens);
    }));
  }
  void releaseMutedProcesses(audit_token_t* tokens, size_t) override { delete[] tokens; }
  es_return_t mutePathPrefix(es_client_t* c, const char* prefix) override {
    return result(
        act(Call::MutePathPrefix, c, [&](Client& s) { s.mutedPrefixes.push_back(prefix); }));
  }
  es_return_t mutePathLiteral(es_client_t* c, const char* path) override {
    return result(
        act(Call::MutePathLiteral, c, [&](Client& s) { s.mutedLiterals.push_back(path); }));
  }
  es_return_t unmuteAllPaths(es_client_t* c) override {
    return result(act(Call::UnmuteAllPaths, c, [&](Client& s) {
      s.mutedPrefixes.clear();
      s.mutedLiterals.clear();
    }));
  }
  // The message builder keeps the arguments as an array of strings.
  uint32_t execArgCount(const es_event_exec_t* event) override {
    return static_cast<uint32_t>(event->args.size);
  }
  es_string_token_t execArg(const es_event_exec_t* event, uint32_t index) override {
    const auto* args = reinterpret_cast<const std::string*>(event->args.data);
    if (args == nullptr || index >= event->args.size) return {0, nullptr};
    return {args[index].size(), args[index].c_str()};
  }

 private:
  static es_return_t result(bool ok) { return ok ? ES_RETURN_SUCCESS : ES_RETURN_ERROR; }
  template <typename F>
  auto locked(F f) const -> decltype(f()) {
    std::lock_guard<std::mutex> lock(mutex_);
    return f();
  }
  bool waitUntil(const std::function<bool()>& done) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(10), done);
  }
  // Counts the call and, unless the test made it fail, runs `change` on
  // the client (a handle is its index plus one); true when it ran.
  bool act(Call call, es_client_t* client, const std::function<void(Client&)>& change);
  es_respond_result_t respond(Call call, es_client_t* client, const es_message_t* message,
                              const Answer& answer);

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  Record record_;
  std::vector<endpointsecurity::MessageHandler> handlers_;
  std::set<Call> failing_;
  es_new_client_result_t newClientResult_ = ES_NEW_CLIENT_RESULT_SUCCESS;
};

}  // namespace lumo::testing
