#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/value_text.h"
#include "xpc/unixsocketconnector.h"
#include "xpc/xpcvalue.h"

namespace lumo::testing {

// The daemon's service, as the extension names it.
constexpr const char* kDaemonService = "com.tarvex.lumo.protectiond.xpc";

// What happened on a daemon link, in order, from any thread; tests wait for
// entries. Waits give up after ten seconds, which passing runs never need.
class Journal {
 public:
  void add(std::string entry) {
    std::lock_guard lock(mutex_);
    entries_.push_back(std::move(entry));
    threads_.push_back(std::this_thread::get_id());
    changed_.notify_all();
  }
  bool waitFor(const std::string& entry, size_t times = 1) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kPatience, [&] { return countLocked(entry) >= times; });
  }
  bool waitForSize(size_t n) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kPatience, [&] { return entries_.size() >= n; });
  }
  size_t count(const std::string& entry) {
    std::lock_guard lock(mutex_);
    return countLocked(entry);
  }
  std::vector<std::string> entries() {
    std::lock_guard lock(mutex_);
    return entries_;
  }
  std::vector<std::thread::id> threads() {
    std::lock_guard lock(mutex_);
    return threads_;
  }

  static constexpr std::chrono::seconds kPatience{10};

 private:
  size_t countLocked(const std::string& entry) const {
    return static_cast<size_t>(std::count(entries_.begin(), entries_.end(), entry));
  }
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> entries_;
  std::vector<std::thread::id> threads_;
};

// The extension's exported object: notes each call, answers policy YES and
// exclusions NO (then YES, which a block must not send).
class RecordingSysext : public tarvex::itx::xpc::SysextXPCInterface {
 public:
  explicit RecordingSysext(Journal& journal) : journal_(journal) {}
  void addMountPoint(const std::string* volume, uint64_t type) override {
    journal_.add("addMountPoint " + valueTextOrNil(volume) + " " + std::to_string(type));
  }
  void removeMountPoint(const std::string* volume) override {
    journal_.add("removeMountPoint " + valueTextOrNil(volume));
  }
  void clearMountPoints() override { journal_.add("clearMountPoints"); }
  void setPolicy(const tarvex::itx::xpc::Dictionary* policy, uint64_t timestamp,
                 tarvex::itx::xpc::ReplyBlock reply) override {
    note(timestamp, "setPolicy " + valueTextOrNil(policy));
    reply(true);
  }
  void setExclusions(const tarvex::itx::xpc::Array* exclusions, uint64_t timestamp,
                     tarvex::itx::xpc::ReplyBlock reply) override {
    note(timestamp, "setExclusions " + valueTextOrNil(exclusions));
    reply(false);
    reply(true);
  }
  void setPrinter(const std::string* printer, bool verdict) override {
    journal_.add("setPrinter " + valueTextOrNil(printer) + (verdict ? " YES" : " NO"));
  }

  // Of policy and exclusions, in order; read after waiting on the journal.
  std::vector<uint64_t> timestamps;

 private:
  void note(uint64_t timestamp, std::string entry) {
    timestamps.push_back(timestamp);
    journal_.add(std::move(entry));
  }
  Journal& journal_;
};

// The extension's end of a link to the daemon's service: exports a
// RecordingSysext; its handlers and the proxy's errors go to the journal.
struct ExtensionEnd {
  ExtensionEnd(const std::string& runtimeDir, Journal& journal, uint64_t options = 0)
      : journal(journal),
        exported(journal),
        connector(runtimeDir),
        connection(connector.connect(kDaemonService, options)) {
    connection->setExportedObject(&exported);
    connection->setInterruptionHandler([&journal] { journal.add("interrupted"); });
    connection->setInvalidationHandler([&journal] { journal.add("invalidated"); });
    daemon = connection->remoteObjectProxyWithErrorHandler(
        [&journal](const std::string& error) { journal.add("error: " + error); });
  }
  void resumeAndRegister() {
    connection->resume();
    daemon->registerWithCompletionHandler(
        [&j = journal](bool yes) { j.add(yes ? "registered YES" : "registered NO"); });
  }

  Journal& journal;
  RecordingSysext exported;
  tarvex::itx::xpc::linux_platform::UnixSocketConnector connector;
  std::shared_ptr<tarvex::itx::xpc::IXPCConnection> connection;
  std::shared_ptr<tarvex::itx::xpc::ProtectionDaemonXPCInterface> daemon;
};

}  // namespace lumo::testing
