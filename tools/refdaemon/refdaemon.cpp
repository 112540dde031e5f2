#include "refdaemon/refdaemon.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <sstream>
#include <utility>

#include "refdaemon/eventnames.h"
#include "refdaemon/extensiondrops.h"
#include "refdaemon/jsonline.h"
#include "xpc/selectors.h"

namespace lumo::refdaemon {

namespace selectors = tarvex::itx::xpc::linux_platform::selectors;
using tarvex::itx::xpc::Dictionary;
using tarvex::itx::xpc::ProtectionDaemonXPCInterface;
using tarvex::itx::xpc::ReplyBlock;
using tarvex::itx::xpc::SysextXPCInterface;

// One accepted extension: the daemon's exported object on its connection.
class RefDaemon::Peer final : public ProtectionDaemonXPCInterface {
 public:
  Peer(std::weak_ptr<RefDaemon> daemon, std::shared_ptr<DaemonConnection> connection)
      : connection(std::move(connection)), daemon_(std::move(daemon)) {}

  void registerWithCompletionHandler(ReplyBlock reply) override {
    if (std::shared_ptr<RefDaemon> d = daemon_.lock()) d->onRegister(*this, reply);
  }
  void handleFileEvent(const Dictionary& e) override { report(selectors::kHandleFileEvent, e); }
  void handlePrinterEvent(const Dictionary& e) override {
    report(selectors::kHandlePrinterEvent, e);
  }
  void handleProcessStartEvent(const Dictionary& e) override {
    report(selectors::kHandleProcessStartEvent, e);
  }
  void handleProcessExitEvent(const Dictionary& e) override {
    report(selectors::kHandleProcessExitEvent, e);
  }

  int pid() const { return static_cast<int>(connection->peer().pid); }

  const std::shared_ptr<DaemonConnection> connection;
  std::shared_ptr<SysextXPCInterface> remote;
  bool registered = false;  // under the daemon's mutex

 private:
  void report(const char* selector, const Dictionary& event) {
    if (std::shared_ptr<RefDaemon> d = daemon_.lock()) d->onEvent(*this, selector, event);
  }

  const std::weak_ptr<RefDaemon> daemon_;
};

std::shared_ptr<RefDaemon> RefDaemon::create(Settings settings, Output out) {
  return std::shared_ptr<RefDaemon>(new RefDaemon(std::move(settings), std::move(out)));
}

RefDaemon::RefDaemon(Settings settings, Output out)
    : out_(std::move(out)), settings_(std::move(settings)) {}

RefDaemon::~RefDaemon() = default;

void RefDaemon::accept(std::shared_ptr<DaemonConnection> connection) {
  auto peer = std::make_shared<Peer>(weak_from_this(), connection);
  const int pid = peer->pid();
  std::weak_ptr<RefDaemon> weak = weak_from_this();
  peer->remote = connection->remoteObjectProxyWithErrorHandler(
      [weak, pid](const std::string& description) {
        if (std::shared_ptr<RefDaemon> self = weak.lock()) {
          self->out_(JsonLine().text("error", description).number("peer_pid", pid).str());
        }
      });
  // Held per call: disconnectAll() may drop the peer while one runs.
  connection->setExportedObject(std::weak_ptr<ProtectionDaemonXPCInterface>(peer));
  uint64_t id;
  {
    std::lock_guard lock(mutex_);
    id = nextPeerId_++;
    peers_[id] = peer;
    ++accepted_;
  }
  connection->setInvalidationHandler([weak, id] {
    if (std::shared_ptr<RefDaemon> self = weak.lock()) self->onClosed(id);
  });
  out_(JsonLine()
           .text("connection", "accepted")
           .number("peer_pid", pid)
           .number("peer_uid", connection->peer().uid)
           .str());
  connection->resume();
}

void RefDaemon::disconnectAll() {
  std::map<uint64_t, PeerRef> peers;
  {
    std::lock_guard lock(mutex_);
    peers.swap(peers_);
  }
}

size_t RefDaemon::registeredCount() const {
  std::lock_guard lock(mutex_);
  return registeredLocked().size();
}

void RefDaemon::onClosed(uint64_t id) {
  PeerRef peer;
  {
    std::lock_guard lock(mutex_);
    auto it = peers_.find(id);
    if (it == peers_.end()) return;
    peer = std::move(it->second);
    peers_.erase(it);
    ++closed_;
  }
  out_(JsonLine().text("connection", "closed").number("peer_pid", peer->pid()).str());
}

void RefDaemon::onRegister(Peer& peer, const ReplyBlock& reply) {
  std::lock_guard lock(mutex_);
  const bool accepted = !settings_.reject;
  out_(JsonLine()
           .text("event", selectors::kRegister)
           .number("peer_pid", peer.pid())
           .flag("answer", accepted)
           .str());
  reply(accepted);
  if (!accepted) return;
  peer.registered = true;
  pushConfigLocked(peer);
}

void RefDaemon::onEvent(Peer& peer, const char* selector, const Dictionary& event) {
  std::unique_lock lock(mutex_);
  if (shownLocked(selector, event)) {
    lock.unlock();
    JsonLine line;
    line.text("event", selector);
    appendEventEntries(line, event);
    out_(line.str());
    lock.lock();
  }
  if (selector != std::string_view(selectors::kHandlePrinterEvent)) return;
  const tarvex::itx::xpc::Value* file = event.find("filename");
  if (settings_.printVerdict && file && file->string()) {
    pushVerdictLocked(peer, *file->string(), *settings_.printVerdict);
  }
}

bool RefDaemon::shownLocked(const char* selector, const Dictionary& event) {
  const std::optional<EventKind> kind = eventKindOfSelector(selector);
  if (!kind) return true;
  Counts& counts = counts_[*kind];
  ++counts.received;
  const tarvex::itx::xpc::Value* pid = event.find("pid");
  const tarvex::itx::xpc::Value* path = event.find("path");
  const bool shown =
      settings_.filter.matches(*kind, event, [this](uint64_t p) { return executableLocked(p); });
  // Kept after the filter saw the event: an exit still knows its executable.
  if (pid != nullptr && pid->number() != nullptr) {
    if (*kind == EventKind::Exec && path != nullptr && path->string() != nullptr) {
      // Bounded: a missed exit must not grow it for ever.
      if (executables_.size() >= 65536) executables_.clear();
      executables_[pid->number()->bits] = *path->string();
    } else if (*kind == EventKind::Exit) {
      executables_.erase(pid->number()->bits);
    }
  }
  if (shown) ++counts.shown;
  return shown;
}

std::optional<std::string> RefDaemon::executableLocked(uint64_t pid) const {
  if (auto it = executables_.find(pid); it != executables_.end()) return it->second;
  // Started before this daemon saw its exec: ask /proc, while it lives.
  char target[4096];
  const std::string link = "/proc/" + std::to_string(pid) + "/exe";
  const ssize_t n = readlink(link.c_str(), target, sizeof target - 1);
  if (n <= 0) return std::nullopt;
  return std::string(target, static_cast<size_t>(n));
}

void RefDaemon::setFilter(EventFilter filter) {
  std::lock_guard lock(mutex_);
  settings_.filter = std::move(filter);
}

EventFilter RefDaemon::filter() const {
  std::lock_guard lock(mutex_);
  return settings_.filter;
}

std::string RefDaemon::statsLine(const std::string& metricsFile) const {
  JsonLine events;
  JsonLine link;
  std::string filter;
  {
    std::lock_guard lock(mutex_);
    for (EventKind kind : kEventKinds) {
      auto it = counts_.find(kind);
      const Counts counts = it != counts_.end() ? it->second : Counts{};
      events.raw(eventKindName(kind),
                 JsonLine()
                     .number("received", static_cast<long long>(counts.received))
                     .number("shown", static_cast<long long>(counts.shown))
                     .str());
    }
    link.number("registered", static_cast<long long>(registeredLocked().size()))
        .number("accepted", static_cast<long long>(accepted_))
        .number("closed", static_cast<long long>(closed_));
    filter = settings_.filter.describe();
  }
  JsonLine drops;
  std::ifstream file(metricsFile);
  if (file) {
    std::stringstream text;
    text << file.rdbuf();
    for (const auto& [series, value] : dropSamples(text.str())) {
      drops.number(series, static_cast<long long>(value));
    }
  }
  return JsonLine()
      .raw("stats", JsonLine()
                        .raw("events", events.str())
                        .text("filter", filter)
                        .raw("link", link.str())
                        .raw("extension_drops", file ? drops.str() : "null")
                        .text("metrics_file", metricsFile)
                        .str())
      .str();
}

void RefDaemon::setPolicy(const PolicySwitches& policy) {
  std::lock_guard lock(mutex_);
  settings_.policy = policy;
  for (const PeerRef& peer : registeredLocked()) pushPolicyLocked(*peer);
}

PolicySwitches RefDaemon::policy() const {
  std::lock_guard lock(mutex_);
  return settings_.policy.value_or(PolicySwitches{});
}

void RefDaemon::addExclusion(Exclusion exclusion) {
  std::lock_guard lock(mutex_);
  if (!settings_.exclusions) settings_.exclusions.emplace();
  settings_.exclusions->push_back(std::move(exclusion));
  for (const PeerRef& peer : registeredLocked()) pushExclusionsLocked(*peer);
}

void RefDaemon::clearExclusions() {
  std::lock_guard lock(mutex_);
  settings_.exclusions.emplace();
  for (const PeerRef& peer : registeredLocked()) pushExclusionsLocked(*peer);
}

void RefDaemon::addMount(Mount mount) {
  std::lock_guard lock(mutex_);
  auto& mounts = settings_.mounts;
  auto it = std::find_if(mounts.begin(), mounts.end(),
                         [&](const Mount& m) { return m.path == mount.path; });
  if (it != mounts.end()) {
    // The extension keeps the first entry of a path: take the old one out.
    for (const PeerRef& peer : registeredLocked()) pushRemoveMountLocked(*peer, mount.path);
    mounts.erase(it);
  }
  mounts.push_back(mount);
  for (const PeerRef& peer : registeredLocked()) pushAddMountLocked(*peer, mount);
}

bool RefDaemon::removeMount(const std::string& path) {
  std::lock_guard lock(mutex_);
  auto& mounts = settings_.mounts;
  auto it = std::find_if(mounts.begin(), mounts.end(),
                         [&](const Mount& m) { return m.path == path; });
  if (it == mounts.end()) return false;
  mounts.erase(it);
  for (const PeerRef& peer : registeredLocked()) pushRemoveMountLocked(*peer, path);
  return true;
}

void RefDaemon::clearMounts() { replaceMounts({}); }

void RefDaemon::replaceMounts(std::vector<Mount> mounts) {
  std::lock_guard lock(mutex_);
  settings_.mounts = std::move(mounts);
  for (const PeerRef& peer : registeredLocked()) {
    pushClearMountsLocked(*peer);
    for (const Mount& mount : settings_.mounts) pushAddMountLocked(*peer, mount);
  }
}

void RefDaemon::sendVerdict(const std::string& file, bool allow) {
  std::lock_guard lock(mutex_);
  for (const PeerRef& peer : registeredLocked()) pushVerdictLocked(*peer, file, allow);
}

uint64_t RefDaemon::nextTimestampLocked() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  const auto nanos = static_cast<uint64_t>(
      std::chrono::duration_cast<std::chrono::nanoseconds>(now).count());
  lastTimestamp_ = std::max(nanos, lastTimestamp_ + 1);
  return lastTimestamp_;
}

std::vector<RefDaemon::PeerRef> RefDaemon::registeredLocked() const {
  std::vector<PeerRef> registered;
  for (const auto& [id, peer] : peers_) {
    if (peer->registered) registered.push_back(peer);
  }
  return registered;
}

void RefDaemon::pushConfigLocked(Peer& peer) {
  if (settings_.policy) pushPolicyLocked(peer);
  if (settings_.exclusions) pushExclusionsLocked(peer);
  // A reconnecting extension may still hold the table of its last link.
  pushClearMountsLocked(peer);
  for (const Mount& mount : settings_.mounts) pushAddMountLocked(peer, mount);
}

void RefDaemon::pushPolicyLocked(Peer& peer) {
  const uint64_t timestamp = nextTimestampLocked();
  const Dictionary policy = settings_.policy->toDictionary();
  out_(JsonLine()
           .text("sent", selectors::kSetPolicy)
           .number("peer_pid", peer.pid())
           .raw("policy", jsonValue(policy))
           .raw("timestamp", std::to_string(timestamp))
           .str());
  peer.remote->setPolicy(&policy, timestamp,
                         [weak = weak_from_this(), pid = peer.pid(), timestamp](bool value) {
                           if (auto self = weak.lock()) {
                             self->reportReply(selectors::kSetPolicy, pid, timestamp, value);
                           }
                         });
}

void RefDaemon::pushExclusionsLocked(Peer& peer) {
  const uint64_t timestamp = nextTimestampLocked();
  const tarvex::itx::xpc::Array exclusions = exclusionsPayload(*settings_.exclusions);
  out_(JsonLine()
           .text("sent", selectors::kSetExclusions)
           .number("peer_pid", peer.pid())
           .raw("exclusions", jsonValue(exclusions))
           .raw("timestamp", std::to_string(timestamp))
           .str());
  peer.remote->setExclusions(&exclusions, timestamp,
                             [weak = weak_from_this(), pid = peer.pid(), timestamp](bool value) {
                               if (auto self = weak.lock()) {
                                 self->reportReply(selectors::kSetExclusions, pid, timestamp,
                                                   value);
                               }
                             });
}

void RefDaemon::pushAddMountLocked(Peer& peer, const Mount& mount) {
  out_(JsonLine()
           .text("sent", selectors::kAddMountPoint)
           .number("peer_pid", peer.pid())
           .text("volume", mount.path)
           .text("mountType", mountKindName(mount.kind))
           .str());
  peer.remote->addMountPoint(&mount.path, static_cast<uint64_t>(mount.kind));
}

void RefDaemon::pushRemoveMountLocked(Peer& peer, const std::string& path) {
  out_(JsonLine()
           .text("sent", selectors::kRemoveMountPoint)
           .number("peer_pid", peer.pid())
           .text("volume", path)
           .str());
  peer.remote->removeMountPoint(&path);
}

void RefDaemon::pushClearMountsLocked(Peer& peer) {
  out_(JsonLine()
           .text("sent", selectors::kClearMountPoints)
           .number("peer_pid", peer.pid())
           .str());
  peer.remote->clearMountPoints();
}

void RefDaemon::pushVerdictLocked(Peer& peer, const std::string& file, bool allow) {
  out_(JsonLine()
           .text("sent", selectors::kSetPrinter)
           .number("peer_pid", peer.pid())
           .text("printer", file)
           .flag("verdict", allow)
           .str());
  peer.remote->setPrinter(&file, allow);
}

void RefDaemon::reportReply(const char* selector, int pid, uint64_t timestamp, bool value) {
  out_(JsonLine()
           .text("reply", selector)
           .number("peer_pid", pid)
           .raw("timestamp", std::to_string(timestamp))
           .flag("value", value)
           .str());
}

}  // namespace lumo::refdaemon
