#pragma once

#include <EndpointSecurity/EndpointSecurity.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "es/procinfo.h"

namespace endpointsecurity::linux_es {

struct ClientState;

// The kernel-side answer of one AUTH message: given once, whoever comes
// first (all clients answered, a denial, the deadline fail-safe, or the
// last release of an unanswered message).
class AuthVerdict {
 public:
  explicit AuthVerdict(std::function<void(bool allow)> respond) : respond_(std::move(respond)) {}
  // True for the call that gave the answer.
  bool finish(bool allow) {
    if (done_.exchange(true)) return false;
    if (respond_) respond_(allow);
    respond_ = nullptr;
    return true;
  }
  bool done() const { return done_.load(); }

 private:
  std::atomic<bool> done_{false};
  std::function<void(bool)> respond_;
};

// One message and everything its pointers reach, owned by the facility and
// reference-counted (retain/release). Built by an event source, read-only
// once delivered.
class Message {
 public:
  Message(es_event_type_t type, es_action_type_t action);
  Message(const Message&) = delete;
  Message& operator=(const Message&) = delete;

  static Message* from(const es_message_t* message) {
    return message == nullptr ? nullptr : static_cast<Message*>(message->reserved_facility);
  }

  es_message_t es{};

  // Storage whose addresses stay put as it grows.
  es_process_t* addProcess(const ProcessInfo& info);
  es_file_t* addFile(std::string path, const struct stat* st);
  es_string_token_t addString(std::string text);
  void setExecArgs(std::vector<std::string> args);
  // Arguments read on first use: an AUTH exec's argv is fetched only when
  // an observer asks for it (the caller waits in execve meanwhile).
  void setExecArgsFetcher(std::function<std::vector<std::string>()> fetch);
  uint32_t argCount() {
    fetchArgs();
    return static_cast<uint32_t>(argTokens_.size());
  }
  es_string_token_t arg(uint32_t index) {
    fetchArgs();
    return index < argTokens_.size() ? argTokens_[index] : es_string_token_t{0, nullptr};
  }

  // AUTH bookkeeping, set by the source (respond, budget) and the hub.
  std::shared_ptr<AuthVerdict> verdict;
  uint64_t budgetNanos = 0;
  // Requested access of an AUTH_OPEN, in ES flag bits (FREAD 1, FWRITE 2).
  uint32_t requestedFlags = 0;
  std::vector<ClientState*> targets;
  std::unique_ptr<std::atomic<bool>[]> answeredBy;
  std::atomic<int> pendingAnswers{0};

  std::atomic<int> refs{1};

 private:
  std::deque<es_process_t> processes_;
  std::deque<es_file_t> files_;
  std::deque<std::string> strings_;
  std::deque<std::string> args_;
  std::vector<es_string_token_t> argTokens_;
  std::function<std::vector<std::string>()> fetchArgs_;
  std::once_flag argsOnce_;
  void fetchArgs();
};

}  // namespace endpointsecurity::linux_es
