#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "xpc/xpcclient.h"
#include "xpc/xpcconnection.h"

// Reaches the shared client's link state for tests.
class SysExtXPCClientTestPeer {
 public:
  static void setLink(std::shared_ptr<tarvex::itx::xpc::IXPCConnection> connection,
                      std::shared_ptr<tarvex::itx::xpc::ProtectionDaemonXPCInterface> daemon,
                      bool listening) {
    SysExtXPCClient& client = SysExtXPCClient::sharedInstance();
    client.setLink(std::move(connection), std::move(daemon));
    client.setListenerActive(listening);
  }

  // Stops the link and forgets the timestamps, as a new process would.
  static void reset() {
    SysExtXPCClient& client = SysExtXPCClient::sharedInstance();
    client.stop();
    client.setLink(nullptr, nullptr);
    client.lastPolicySettingTimestamp_.store(0);
    client.lastExclusionsSettingTimestamp_.store(0);
  }
};

namespace lumo::testing {

// The daemon's side of the link: records every event it is sent.
class FakeDaemon : public tarvex::itx::xpc::ProtectionDaemonXPCInterface {
 public:
  using Dictionary = tarvex::itx::xpc::Dictionary;
  struct Received {
    std::string selector;
    Dictionary event;
  };

  void registerWithCompletionHandler(tarvex::itx::xpc::ReplyBlock reply) override {
    reply(acceptRegistration);
  }
  void handleFileEvent(const Dictionary& e) override { record("handleFileEvent:", e); }
  void handlePrinterEvent(const Dictionary& e) override { record("handlePrinterEvent:", e); }
  void handleProcessStartEvent(const Dictionary& e) override {
    record("handleProcessStartEvent:", e);
  }
  void handleProcessExitEvent(const Dictionary& e) override {
    record("handleProcessExitEvent:", e);
  }

  // Everything received, or what one selector received.
  std::vector<Received> received(const std::string& selector = "") const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<Received> found = received_;
    std::erase_if(found,
                  [&](const Received& r) { return !selector.empty() && r.selector != selector; });
    return found;
  }
  size_t count() const { return received().size(); }
  bool waitForCount(size_t n) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(10), [&] { return received_.size() >= n; });
  }
  void clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    received_.clear();
  }

  // What registration answers.
  bool acceptRegistration = true;

 private:
  void record(const char* selector, const Dictionary& event) {
    std::lock_guard<std::mutex> lock(mutex_);
    received_.push_back({selector, event});
    changed_.notify_all();
  }
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<Received> received_;
};

// A connection that does nothing but hold handlers the test may fire.
class FakeConnection : public tarvex::itx::xpc::IXPCConnection {
 public:
  explicit FakeConnection(std::shared_ptr<FakeDaemon> daemon) : daemon_(std::move(daemon)) {}
  void setExportedObject(tarvex::itx::xpc::SysextXPCInterface*) override {}
  void resume() override {}
  void invalidate() override { invalidated = true; }
  void setInterruptionHandler(std::function<void()> handler) override {
    interruption = std::move(handler);
  }
  void setInvalidationHandler(std::function<void()> handler) override {
    invalidation = std::move(handler);
  }
  std::shared_ptr<tarvex::itx::xpc::ProtectionDaemonXPCInterface> remoteObjectProxyWithErrorHandler(
      tarvex::itx::xpc::ErrorHandler) override {
    return daemon_;
  }

  bool invalidated = false;
  std::function<void()> interruption;
  std::function<void()> invalidation;

 private:
  std::shared_ptr<FakeDaemon> daemon_;
};

// Hands out fake connections to fake daemons and remembers them, newest
// last, so a test can play the daemon and the connection's handlers.
class FakeConnector : public tarvex::itx::xpc::IXPCConnector {
 public:
  struct Opened {
    std::shared_ptr<FakeConnection> connection;
    std::shared_ptr<FakeDaemon> daemon;
  };

  std::shared_ptr<tarvex::itx::xpc::IXPCConnection> connect(const std::string&, uint64_t) override {
    auto daemon = std::make_shared<FakeDaemon>();
    daemon->acceptRegistration = acceptRegistration;
    opened.push_back({std::make_shared<FakeConnection>(daemon), daemon});
    return opened.back().connection;
  }

  // Single-threaded: the link connects on the test's thread.
  std::vector<Opened> opened;
  bool acceptRegistration = true;
};

// Connects the shared link to a fake daemon for the life of the object, as
// if the daemon had accepted registration (or not).
class FakeDaemonLink {
 public:
  explicit FakeDaemonLink(bool listening = true) { setListening(listening); }
  ~FakeDaemonLink() { SysExtXPCClientTestPeer::setLink(nullptr, nullptr, false); }

  FakeDaemon& daemon() { return *daemon_; }
  void setListening(bool listening) {
    SysExtXPCClientTestPeer::setLink(std::make_shared<FakeConnection>(daemon_), daemon_, listening);
  }

 private:
  std::shared_ptr<FakeDaemon> daemon_ = std::make_shared<FakeDaemon>();
};

}  // namespace lumo::testing
