#pragma once

#include <EndpointSecurity/EndpointSecurity.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "es/procfs/procinfo.h"
#include "rtn/dispatch.h"

namespace endpointsecurity::linux_es {

struct ClientState;

// The kernel-side answer of one AUTH message: given once, whoever comes
// first (all clients answered, a denial, the deadline fail-safe, or the
// last release of an unanswered message).
class AuthVerdict {
 public:
  explicit AuthVerdict(std::function<void(bool allow)> respond) : respond_(std::move(respond)) {}
  // True for the call that gave the answer. The fail-safe goes with it.
  bool finish(bool allow) {
    if (done_.exchange(true)) return false;
    if (respond_) respond_(allow);
    respond_ = nullptr;
    tarvex::itx::rtn::TimerRef failsafe;
    {
      std::lock_guard<std::mutex> lock(failsafeMutex_);
      failsafe = std::move(failsafe_);
    }
    if (failsafe) failsafe->cancel();
    return true;
  }
  bool done() const { return done_.load(); }
  // The timer that answers at the deadline; cancelled with the answer.
  void watchedBy(tarvex::itx::rtn::TimerRef failsafe) {
    {
      std::lock_guard<std::mutex> lock(failsafeMutex_);
      if (!done_.load()) {
        failsafe_ = std::move(failsafe);
        return;
      }
    }
    failsafe->cancel();
  }

 private:
  std::atomic<bool> done_{false};
  std::function<void(bool)> respond_;
  std::mutex failsafeMutex_;
  tarvex::itx::rtn::TimerRef failsafe_;
};

// Parts of a message at addresses that stay put: the first N in place, the
// rest, which few messages need, in a deque made on first use.
template <typename T, size_t N>
class Slots {
 public:
  T& add() {
    if (used_ < N) return inline_[used_++] = T{};
    if (!more_) more_.emplace();
    return more_->emplace_back();
  }

 private:
  // Cleared as they are taken: most messages use one or two.
  std::array<T, N> inline_;
  size_t used_ = 0;
  std::optional<std::deque<T>> more_;
};

// NUL-terminated copies of a message's strings, packed into blocks; the
// first block is part of the message.
class TextArena {
 public:
  TextArena() = default;
  TextArena(const TextArena&) = delete;
  TextArena& operator=(const TextArena&) = delete;
  // Stored as the daemon can take it: see text/byteescape.h.
  es_string_token_t add(std::string_view text);

 private:
  es_string_token_t copy(std::string_view text);
  static constexpr size_t kInline = 512;
  static constexpr size_t kBlock = 2048;
  char inline_[kInline];
  char* free_ = inline_;
  size_t room_ = kInline;
  std::vector<std::unique_ptr<char[]>> blocks_;
};

// One message and everything its pointers reach, owned by the facility and
// reference-counted (retain/release). Built by an event source, read-only
// once delivered.
class Message {
 public:
  Message(es_event_type_t type, es_action_type_t action);
  Message(const Message&) = delete;
  Message& operator=(const Message&) = delete;

  // Recycled: at 2 KiB a message is a large request to malloc, which then
  // sweeps its fast bins every time.
  static void* operator new(size_t size);
  static void operator delete(void* block, size_t size);

  static Message* from(const es_message_t* message) {
    return message == nullptr ? nullptr : static_cast<Message*>(message->reserved_facility);
  }

  es_message_t es{};

  // Storage whose addresses stay put as it grows.
  es_process_t* addProcess(const ProcessInfo& info);
  es_file_t* addFile(std::string_view path, const struct stat* st);
  es_string_token_t addString(std::string_view text) { return text_.add(text); }
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

  // A move the hub waits for clients to release before the next AUTH.
  bool heldMove = false;

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
  // Sized for the common messages: an exec's caller and image, a rename's
  // two files and the executables of its process.
  Slots<es_process_t, 2> processes_;
  Slots<es_file_t, 4> files_;
  TextArena text_;
  std::vector<std::string> args_;  // never changed once the tokens point in
  std::vector<es_string_token_t> argTokens_;
  std::function<std::vector<std::string>()> fetchArgs_;
  std::once_flag argsOnce_;
  void fetchArgs();
};

}  // namespace endpointsecurity::linux_es
