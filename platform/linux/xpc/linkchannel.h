#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "dispatch/wakebatch.h"
#include "xpc/callcheck.h"
#include "xpc/linkframe.h"
#include "xpc/xpcconnection.h"

namespace tarvex::itx::xpc::linux_platform {

// The engine under both ends of the link: one socket and one thread. The
// thread is the connection's serial queue: it connects (lazily, when the
// first call is queued after resume), moves frames, and runs every handler,
// incoming call and reply block; nothing runs on a caller's thread and no
// lock is held while anything runs.
//
// How a link ends: an established link that the peer closes, or that is
// dropped for a bad frame, runs the interruption handler, then the
// invalidation handler; a link that never got established (socket missing or
// refusing, peer refused) or that we invalidate() runs the invalidation
// handler alone, asynchronously. Each runs at most once, then
// both are released with the exported object. Calls still queued or awaiting
// a reply when the link ends, and calls made later, get their error handler
// on the link's thread, except after invalidate(), when they are dropped
// silently.
//
// The thread is detached and keeps the channel alive: dropping a handle
// never waits for it (a handler of the caller's may be running). Once
// close() has returned, nothing of the caller's starts on the thread any
// more, and the thread exits.
class LinkChannel : public rtn::linux_platform::Wakeable,
                    public std::enable_shared_from_this<LinkChannel> {
 public:
  struct Settings {
    std::string serviceName;   // names the link in log lines and error texts
    std::string socketPath;    // extension side: where to connect
    std::string setupError;    // why socketPath could not be made, if so
    int connectedFd = -1;      // daemon side: an accepted, admitted socket (owned)
    bool privileged = false;   // the peer must be root
    Protocol exported = Protocol::Sysext;  // the calls this end accepts
  };
  // Runs an incoming call that fits the exported protocol.
  using Inbound = std::function<void(const CallFrame& call, const ReplyBlock& reply)>;

  // Frames queued and not yet written; past this, calls are dropped.
  static constexpr size_t kMaxQueuedFrames = 4096;

  explicit LinkChannel(Settings settings);
  ~LinkChannel();
  LinkChannel(const LinkChannel&) = delete;
  LinkChannel& operator=(const LinkChannel&) = delete;

  void setInbound(Inbound inbound);
  void setInterruptionHandler(std::function<void()> handler);
  void setInvalidationHandler(std::function<void()> handler);
  void resume();
  void invalidate();
  // The owner is gone: the thread exits without running anything more.
  void close();

  // Queues a call from any thread. A call with a replyId gets a fresh id and
  // `reply` runs with the peer's answer. Under a WakeBatch the link's thread
  // is woken when the batch ends: a run of records goes in one write.
  void send(CallFrame call, ReplyBlock reply, ErrorHandler onError);
  // A one-way call with a record as its argument, encoded from the record
  // where it lies.
  void sendRecord(std::string_view selector, const Dictionary& record, ErrorHandler onError);
  void wakeForQueued() override;

 private:
  enum class End : uint8_t { Closed, Invalidated, PeerGone, Failed };
  struct Outgoing {
    std::string bytes;
    std::string selector;  // empty for our answers to the peer
    std::optional<uint64_t> replyId;
    ErrorHandler onError;
  };
  struct Awaited {
    ReplyBlock reply;
    ErrorHandler onError;
  };
  using Task = std::function<void()>;

  // Queues an encoded call, or tells why it can't go.
  void enqueue(std::optional<std::string> bytes, const std::string& error,
               std::string_view selector, std::optional<uint64_t> replyId, ReplyBlock reply,
               ErrorHandler onError);
  void startThreadLocked();
  void wakeLocked();
  void run();
  std::optional<End> connect(std::string* why);
  End pump(std::string* why);
  void runTasks();
  std::optional<End> readFrames(std::string* why);
  std::optional<End> writeFrames(std::string* why);
  std::optional<End> handle(Frame frame, std::string* why);
  ReplyBlock replyBlockFor(uint64_t replyId);
  void sendReply(uint64_t replyId, bool value);
  void finish(End end, const std::string& why);
  // Runs a caller's code on the link's thread unless the owner has gone.
  void runUnlessClosed(const std::function<void()>& handler);
  void serveLateCalls();
  // The extension's ends count what they send (linkcounters.h).
  void countQueued(std::string_view selector) const;
  void countDropped(std::string_view selector, bool queueFull) const;

  const Settings settings_;
  const bool counted_;
  const int wakeFd_;
  std::atomic<uint64_t> nextReplyId_{1};

  // The link thread's own.
  int fd_;
  bool established_ = false;
  std::unique_ptr<char[]> buffer_;

  std::mutex mutex_;
  std::condition_variable changed_;
  bool resumed_ = false;
  bool threadStarted_ = false;
  bool invalidated_ = false;
  bool closing_ = false;
  // The wake-up descriptor is written once until the link thread reads it:
  // a burst of sends costs one write, not one each.
  bool wakePending_ = false;
  bool dead_ = false;
  std::string deadReason_;  // the error handlers' text once dead
  std::deque<Outgoing> outbox_;
  size_t droppedWhileFull_ = 0;
  std::unordered_map<uint64_t, Awaited> awaited_;
  std::deque<Task> tasks_;
  Inbound inbound_;
  std::function<void()> onInterruption_;
  std::function<void()> onInvalidation_;
};

// Link threads finish on their own after their channel is closed or dead and
// released; this waits until none is left (tests, orderly exits). False on
// time-out.
bool waitForLinkThreads(std::chrono::milliseconds timeout);

}  // namespace tarvex::itx::xpc::linux_platform
