#include "xpc/linkchannel.h"

#include <errno.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "dispatch/threadname.h"
#include "dispatch/threadpriority.h"
#include "log/log.h"
#include "xpc/framecodec.h"
#include "xpc/linkcounters.h"
#include "xpc/peercheck.h"
#include "xpc/seqpacket.h"

LUMO_LOG_MODULE("MAC_ES_SERVICE_XPC")

namespace tarvex::itx::xpc::linux_platform {

namespace {

// Messages read per wake-up before queued writes get their turn.
constexpr int kFramesPerWake = 64;
constexpr size_t kFramesPerSend = 64;
// Frames queued together go in one message up to this many bytes: the
// peer is woken and reads once for all of them.
constexpr size_t kPackBytes = 32 * 1024;

struct ThreadCount {
  std::mutex mutex;
  std::condition_variable none;
  size_t live = 0;
};

ThreadCount& threadCount() {
  static ThreadCount* count = new ThreadCount();  // outlives detached threads at exit
  return *count;
}

void threadStarted() {
  ThreadCount& c = threadCount();
  std::lock_guard lock(c.mutex);
  ++c.live;
}

void threadEnded() {
  ThreadCount& c = threadCount();
  std::lock_guard lock(c.mutex);
  if (--c.live == 0) c.none.notify_all();
}

}  // namespace

bool waitForLinkThreads(std::chrono::milliseconds timeout) {
  ThreadCount& c = threadCount();
  std::unique_lock lock(c.mutex);
  return c.none.wait_for(lock, timeout, [&] { return c.live == 0; });
}

LinkChannel::LinkChannel(Settings settings)
    : settings_(std::move(settings)),
      counted_(settings_.connectedFd < 0),
      wakeFd_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)),
      fd_(settings_.connectedFd) {}

LinkChannel::~LinkChannel() {
  if (fd_ >= 0) ::close(fd_);
  if (wakeFd_ >= 0) ::close(wakeFd_);
}

void LinkChannel::countQueued(std::string_view selector) const {
  const int kind = counted_ ? eventKindOf(selector) : -1;
  if (kind >= 0) linkCounters().eventsQueued[kind].fetch_add(1, std::memory_order_relaxed);
}

void LinkChannel::countDropped(std::string_view selector, bool queueFull) const {
  if (!counted_) return;
  if (queueFull) linkCounters().sendQueueDrops.fetch_add(1, std::memory_order_relaxed);
  const int kind = eventKindOf(selector);
  if (kind >= 0) linkCounters().eventsDropped[kind].fetch_add(1, std::memory_order_relaxed);
}

void LinkChannel::setInbound(Inbound inbound) {
  std::lock_guard lock(mutex_);
  if (!dead_) inbound_ = std::move(inbound);
}

void LinkChannel::setInterruptionHandler(std::function<void()> handler) {
  std::lock_guard lock(mutex_);
  if (!dead_) onInterruption_ = std::move(handler);
}

void LinkChannel::setInvalidationHandler(std::function<void()> handler) {
  std::lock_guard lock(mutex_);
  if (!dead_) onInvalidation_ = std::move(handler);
}

void LinkChannel::resume() {
  std::lock_guard lock(mutex_);
  if (resumed_) return;
  resumed_ = true;
  startThreadLocked();
}

void LinkChannel::invalidate() {
  std::lock_guard lock(mutex_);
  if (invalidated_) return;
  invalidated_ = true;
  // Even a link never resumed reports its invalidation.
  if (!dead_) startThreadLocked();
  wakeLocked();
}

void LinkChannel::close() {
  std::lock_guard lock(mutex_);
  closing_ = true;
  wakeLocked();
}

void LinkChannel::send(CallFrame call, ReplyBlock reply, ErrorHandler onError) {
  if (call.replyId) call.replyId = nextReplyId_.fetch_add(1);
  std::string error;
  std::optional<std::string> bytes = encodeFrame(call, &error);
  enqueue(std::move(bytes), error, call.selector, call.replyId, std::move(reply),
          std::move(onError));
}

void LinkChannel::sendRecord(std::string_view selector, const Dictionary& record,
                             ErrorHandler onError) {
  std::string error;
  std::optional<std::string> bytes = encodeRecordCall(selector, record, &error);
  enqueue(std::move(bytes), error, selector, std::nullopt, nullptr, std::move(onError));
}

void LinkChannel::enqueue(std::optional<std::string> bytes, const std::string& error,
                          std::string_view selector, std::optional<uint64_t> replyId,
                          ReplyBlock reply, ErrorHandler onError) {
  bool firstDrop = false;
  const bool deferred = rtn::linux_platform::WakeBatch::defer(weak_from_this().lock());
  {
    std::lock_guard lock(mutex_);
    if (closing_ || invalidated_) return;
    if (bytes && !dead_) {
      if (outbox_.size() >= kMaxQueuedFrames) {
        firstDrop = droppedWhileFull_++ == 0;
        countDropped(selector, true);
      } else {
        if (replyId) awaited_[*replyId] = {std::move(reply), onError};
        outbox_.push_back({std::move(*bytes), std::string(selector), replyId, std::move(onError)});
        countQueued(selector);
        if (!deferred) wakeLocked();
        return;
      }
    } else {
      if (bytes) countDropped(selector, false);
      if (onError) {
        const std::string text =
            bytes ? deadReason_ : "cannot send " + std::string(selector) + ": " + error;
        tasks_.push_back([onError = std::move(onError), text] { onError(text); });
        wakeLocked();
      }
    }
  }
  if (!bytes) {
    LOG_ERROR("Cannot send %{public}s on the link to %{public}s: %{public}s\n",
              std::string(selector).c_str(), settings_.serviceName.c_str(), error.c_str());
  } else if (firstDrop) {
    LOG_ERROR("Send queue of the link to %{public}s is full (%zu frames); dropping calls until "
              "it drains\n",
              settings_.serviceName.c_str(), kMaxQueuedFrames);
  }
}

void LinkChannel::wakeForQueued() {
  std::lock_guard lock(mutex_);
  wakeLocked();
}

void LinkChannel::startThreadLocked() {
  if (threadStarted_) return;
  threadStarted_ = true;
  threadStarted();
  try {
    std::thread([self = shared_from_this()]() mutable {
      self->run();
      self.reset();
      threadEnded();
    }).detach();
  } catch (const std::system_error& e) {
    threadEnded();
    dead_ = true;
    deadReason_ = std::string("the link to ") + settings_.serviceName + " has no thread";
    // Logged under the lock: the sink never calls back into the link.
    LOG_ERROR("Cannot start the link to %{public}s: %{public}s\n", settings_.serviceName.c_str(),
              e.what());
  }
}

void LinkChannel::wakeLocked() {
  changed_.notify_all();
  const uint64_t one = 1;
  if (wakeFd_ >= 0 && !wakePending_) {
    wakePending_ = true;
    [[maybe_unused]] const ssize_t n = write(wakeFd_, &one, sizeof one);
  }
}

void LinkChannel::run() {
  rtn::linux_platform::nameThread("lumo.xpc.link");
  rtn::linux_platform::prioritiseThread(rtn::QosClass::Default);
  std::string why;
  std::optional<End> end;
  if (fd_ < 0) {
    end = connect(&why);
  } else {
    established_ = true;  // the listener admitted it
  }
  if (!end) end = pump(&why);
  finish(*end, why);
  if (*end != End::Closed) serveLateCalls();
}

// Waits for the first call (the platform connects on first use, and the
// caller installs its handlers after resume), then connects.
std::optional<LinkChannel::End> LinkChannel::connect(std::string* why) {
  {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return closing_ || invalidated_ || !outbox_.empty(); });
    if (closing_) return End::Closed;
    if (invalidated_) return End::Invalidated;
  }
  if (!settings_.setupError.empty()) {
    *why = settings_.setupError;
    return End::Failed;
  }
  fd_ = openSeqpacketSocket();
  if (fd_ < 0) {
    *why = "cannot create a socket: " + errnoText(errno);
    return End::Failed;
  }
  const sockaddr_un address = socketAddress(settings_.socketPath);
  if (::connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    *why = "cannot connect to " + settings_.socketPath + ": " + errnoText(errno);
    return End::Failed;
  }
  PeerCredentials peer;
  if (!admitPeer(fd_, settings_.privileged, settings_.serviceName, &peer)) {
    *why = "peer pid " + std::to_string(peer.pid) + " uid " + std::to_string(peer.uid) +
           " refused";
    return End::Failed;
  }
  established_ = true;
  linkCounters().established.fetch_add(1);
  linkCounters().connections.fetch_add(1);
  LOG_DEBUG("Connected to %{public}s, peer pid %d\n", settings_.serviceName.c_str(),
            static_cast<int>(peer.pid));
  return std::nullopt;
}

LinkChannel::End LinkChannel::pump(std::string* why) {
  if (wakeFd_ < 0) {
    *why = "cannot create the link's wake-up descriptor";
    return End::Failed;
  }
  buffer_ = std::make_unique<char[]>(kMaxFrameBytes);
  for (;;) {
    runTasks();
    bool wantWrite;
    {
      std::lock_guard lock(mutex_);
      if (closing_) return End::Closed;
      if (invalidated_) return End::Invalidated;
      wantWrite = !outbox_.empty();
    }
    pollfd fds[2] = {{fd_, static_cast<short>(POLLIN | (wantWrite ? POLLOUT : 0)), 0},
                     {wakeFd_, POLLIN, 0}};
    if (poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      *why = "cannot wait on the socket: " + errnoText(errno);
      return End::Failed;
    }
    if (fds[1].revents & POLLIN) {
      uint64_t count;
      [[maybe_unused]] const ssize_t n = read(wakeFd_, &count, sizeof count);
      // Whatever came before this is seen on the next round; whatever
      // comes after writes again.
      std::lock_guard lock(mutex_);
      wakePending_ = false;
    }
    // Reads first: a peer that wrote and closed is heard before its EPIPE.
    if (fds[0].revents & (POLLIN | POLLHUP | POLLERR)) {
      if (std::optional<End> end = readFrames(why)) return *end;
    }
    if (fds[0].revents & POLLOUT) {
      if (std::optional<End> end = writeFrames(why)) return *end;
    }
  }
}

void LinkChannel::runTasks() {
  std::deque<Task> tasks;
  {
    std::lock_guard lock(mutex_);
    tasks.swap(tasks_);
  }
  for (Task& task : tasks) runUnlessClosed(task);
}

std::optional<LinkChannel::End> LinkChannel::readFrames(std::string* why) {
  for (int i = 0; i < kFramesPerWake; ++i) {
    {
      std::lock_guard lock(mutex_);
      if (closing_ || invalidated_) return std::nullopt;
    }
    // MSG_TRUNC: the message's real length, even past the buffer.
    const ssize_t n = recv(fd_, buffer_.get(), kMaxFrameBytes, MSG_TRUNC);
    if (n < 0) {
      const int err = errno;
      if (err == EAGAIN || err == EWOULDBLOCK) return std::nullopt;
      if (err == EINTR) continue;
      if (err == ECONNRESET) return End::PeerGone;
      *why = "cannot read from the socket: " + errnoText(err);
      return End::Failed;
    }
    if (n == 0) return End::PeerGone;
    if (static_cast<size_t>(n) > kMaxFrameBytes) {
      *why = "frame of " + std::to_string(n) + " bytes exceeds the " +
             std::to_string(kMaxFrameBytes) + "-byte limit";
      return End::Failed;
    }
    std::optional<std::vector<Frame>> frames =
        decodeMessage({buffer_.get(), static_cast<size_t>(n)}, why);
    if (!frames) return End::Failed;
    for (Frame& frame : *frames) {
      if (std::optional<End> end = handle(std::move(frame), why)) return end;
    }
  }
  return std::nullopt;
}

std::optional<LinkChannel::End> LinkChannel::writeFrames(std::string* why) {
  // Off once a pack did not fit the socket's buffers: frames go one by one.
  bool pack = true;
  for (;;) {
    // Up to kFramesPerSend frames go in one system call, packed into as few
    // messages as kPackBytes allows.
    std::vector<Outgoing> batch;
    size_t dropped = 0;
    {
      std::lock_guard lock(mutex_);
      if (outbox_.empty()) std::swap(dropped, droppedWhileFull_);
      const size_t n = std::min(outbox_.size(), kFramesPerSend);
      batch.reserve(n);
      for (size_t i = 0; i < n; ++i) {
        batch.push_back(std::move(outbox_.front()));
        outbox_.pop_front();
      }
    }
    if (batch.empty()) {
      if (dropped > 0) {
        LOG_WARN("Send queue of the link to %{public}s drained; %zu calls were dropped\n",
                 settings_.serviceName.c_str(), dropped);
      }
      return std::nullopt;
    }
    // Messages as runs of frames: [first, end) of the batch each.
    struct Run {
      size_t first;
      size_t end;
      std::string packed;  // the pack, for a run of more than one
    };
    std::vector<Run> runs;
    size_t runBytes = 0;
    for (size_t i = 0; i < batch.size(); ++i) {
      const size_t bytes = batch[i].bytes.size();
      if (runs.empty() || !pack || runBytes + bytes > kPackBytes) {
        runs.push_back({i, i + 1, {}});
        runBytes = bytes;
      } else {
        runs.back().end = i + 1;
        runBytes += bytes;
      }
    }
    iovec parts[kFramesPerSend];
    mmsghdr messages[kFramesPerSend] = {};
    for (size_t m = 0; m < runs.size(); ++m) {
      Run& run = runs[m];
      if (run.end - run.first == 1) {
        parts[m] = {batch[run.first].bytes.data(), batch[run.first].bytes.size()};
      } else {
        std::vector<const std::string*> frames;
        for (size_t i = run.first; i < run.end; ++i) frames.push_back(&batch[i].bytes);
        run.packed = packFrames(frames);
        parts[m] = {run.packed.data(), run.packed.size()};
      }
      messages[m].msg_hdr.msg_iov = &parts[m];
      messages[m].msg_hdr.msg_iovlen = 1;
    }
    const int sent = sendmmsg(fd_, messages, static_cast<unsigned>(runs.size()), MSG_NOSIGNAL);
    const int err = errno;
    // What was not sent goes back to the front, in order.
    const size_t done = sent > 0 ? runs[static_cast<size_t>(sent) - 1].end : 0;
    auto unsent = [&](size_t from) {
      std::lock_guard lock(mutex_);
      for (size_t i = batch.size(); i-- > from;) outbox_.push_front(std::move(batch[i]));
    };
    if (done == batch.size()) continue;
    if (done > 0) {
      unsent(done);  // tried again: an error shows on the first of them
      continue;
    }
    if (err == EMSGSIZE && runs.front().end - runs.front().first > 1) {
      pack = false;  // the socket's buffers are small: try the frames alone
      unsent(0);
      continue;
    }
    Outgoing& out = batch.front();
    if (err == EMSGSIZE) {
      // The socket's buffers are smaller than a full frame (no privilege to
      // raise them): this call is lost, the link is not.
      const std::string text = out.selector + " of " + std::to_string(out.bytes.size()) +
                               " bytes is larger than the socket takes";
      LOG_ERROR("Dropping %{public}s on the link to %{public}s\n", text.c_str(),
                settings_.serviceName.c_str());
      if (out.replyId) {
        std::lock_guard lock(mutex_);
        awaited_.erase(*out.replyId);
      }
      if (out.onError) out.onError(text);
      unsent(1);
      continue;
    }
    unsent(0);  // still unsent: reported when the link ends
    if (err == EAGAIN || err == EWOULDBLOCK || err == EINTR) return std::nullopt;
    if (err == EPIPE || err == ECONNRESET) return End::PeerGone;
    *why = "cannot write to the socket: " + errnoText(err);
    return End::Failed;
  }
}

std::optional<LinkChannel::End> LinkChannel::handle(Frame frame, std::string* why) {
  if (const ReplyFrame* answer = std::get_if<ReplyFrame>(&frame)) {
    Awaited awaited;
    {
      std::lock_guard lock(mutex_);
      auto it = awaited_.find(answer->replyId);
      if (it == awaited_.end()) {
        *why = "reply for unknown id " + std::to_string(answer->replyId);
        return End::Failed;
      }
      awaited = std::move(it->second);
      awaited_.erase(it);
    }
    if (awaited.reply) runUnlessClosed([&] { awaited.reply(answer->value); });
    return std::nullopt;
  }
  const CallFrame& call = std::get<CallFrame>(frame);
  std::string error = checkCall(settings_.exported, call);
  if (!error.empty()) {
    *why = std::move(error);
    return End::Failed;
  }
  Inbound inbound;
  {
    std::lock_guard lock(mutex_);
    if (closing_) return std::nullopt;  // the loop ends at its next turn
    inbound = inbound_;
  }
  if (!inbound) {
    LOG_ERROR("No exported object on the link to %{public}s; %{public}s dropped\n",
              settings_.serviceName.c_str(), call.selector.c_str());
    return std::nullopt;
  }
  inbound(call, call.replyId ? replyBlockFor(*call.replyId) : ReplyBlock());
  return std::nullopt;
}

ReplyBlock LinkChannel::replyBlockFor(uint64_t replyId) {
  auto answered = std::make_shared<std::atomic<bool>>(false);
  return [weak = weak_from_this(), replyId, answered](bool value) {
    if (answered->exchange(true)) return;  // a block answers once
    if (std::shared_ptr<LinkChannel> self = weak.lock()) self->sendReply(replyId, value);
  };
}

void LinkChannel::sendReply(uint64_t replyId, bool value) {
  std::string error;
  std::optional<std::string> bytes = encodeFrame(ReplyFrame{replyId, value}, &error);
  std::lock_guard lock(mutex_);
  if (!bytes || dead_ || closing_ || invalidated_) return;
  outbox_.push_back({std::move(*bytes), {}, std::nullopt, nullptr});
  wakeLocked();
}

void LinkChannel::finish(End end, const std::string& why) {
  if (fd_ >= 0) {
    ::close(fd_);
    fd_ = -1;
  }
  buffer_.reset();
  std::deque<Outgoing> unsent;
  std::unordered_map<uint64_t, Awaited> awaited;
  bool silent;
  {
    std::lock_guard lock(mutex_);
    dead_ = true;
    // Closed while the end was coming: the owner is gone, nobody to tell.
    if (closing_) end = End::Closed;
    silent = invalidated_ || closing_;
    deadReason_ = end == End::PeerGone
                      ? "the connection to " + settings_.serviceName + " was interrupted"
                      : "the connection to " + settings_.serviceName + " is invalid: " + why;
    unsent.swap(outbox_);
    awaited.swap(awaited_);
  }
  if (counted_) {
    if (established_) linkCounters().established.fetch_sub(1);
    for (const Outgoing& out : unsent) countDropped(out.selector, false);
  }
  if (end == End::Failed && !established_) {
    LOG_ERROR("No link to %{public}s: %{public}s\n", settings_.serviceName.c_str(), why.c_str());
  } else if (end == End::Failed) {
    LOG_ERROR("Dropping the link to %{public}s: %{public}s\n", settings_.serviceName.c_str(),
              why.c_str());
  } else if (end == End::PeerGone) {
    LOG_INFO("The peer of %{public}s closed the link\n", settings_.serviceName.c_str());
  }
  if (end != End::Closed) {
    // An established link that ends from the far side, or for its frames, is
    // interrupted; one that never got there is only invalidated.
    const bool fromPeer = end == End::PeerGone || end == End::Failed;
    if (fromPeer && established_ && !silent) runUnlessClosed(onInterruption_);
    if (!silent) {
      const std::string text = deadReason_;  // written above, on this thread
      for (Outgoing& out : unsent) {
        if (out.onError && !out.replyId) runUnlessClosed([&] { out.onError(text); });
      }
      for (auto& entry : awaited) {
        auto& pending = entry.second;  // a lambda can't capture a structured binding in clang 14
        if (pending.onError) runUnlessClosed([&] { pending.onError(text); });
      }
    }
    runUnlessClosed(onInvalidation_);
  }
  // Handlers, exported object and pending work are released here, off the
  // lock: their captures may hold the last reference to a handle.
  std::function<void()> released[2];
  Inbound inbound;
  {
    std::lock_guard lock(mutex_);
    released[0] = std::move(onInterruption_);
    released[1] = std::move(onInvalidation_);
    inbound = std::move(inbound_);
  }
}

void LinkChannel::runUnlessClosed(const std::function<void()>& handler) {
  std::function<void()> copy;
  {
    std::lock_guard lock(mutex_);
    if (closing_) return;
    copy = handler;
  }
  if (copy) copy();
}

// A dead link's thread stays until the handle goes, to run the error
// handlers of calls made in the meantime.
void LinkChannel::serveLateCalls() {
  for (;;) {
    std::deque<Task> tasks;
    {
      std::unique_lock lock(mutex_);
      changed_.wait(lock, [&] { return closing_ || !tasks_.empty(); });
      tasks.swap(tasks_);
      if (closing_) break;
    }
    for (Task& task : tasks) runUnlessClosed(task);
  }
}

}  // namespace tarvex::itx::xpc::linux_platform
