#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "xpc/xpcclient.h"
#include "xpc/xpcconnection.h"

namespace lumo::testing {

// The daemon's side of the link: records every event it is sent.
class FakeDaemon : public tarvex::itx::xpc::ProtectionDaemonXPCInterface {
 public:
  struct Received {
    std::string selector;
    tarvex::itx::xpc::Dictionary event;
  };

  void registerWithCompletionHandler(tarvex::itx::xpc::ReplyBlock reply) override;
  void handleFileEvent(const tarvex::itx::xpc::Dictionary& event) override;
  void handlePrinterEvent(const tarvex::itx::xpc::Dictionary& event) override;
  void handleProcessStartEvent(const tarvex::itx::xpc::Dictionary& event) override;
  void handleProcessExitEvent(const tarvex::itx::xpc::Dictionary& event) override;

  std::vector<Received> received() const;
  std::vector<Received> received(const std::string& selector) const;
  size_t count() const;
  bool waitForCount(size_t n, std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
  void clear();

  // What registration answers.
  bool acceptRegistration = true;

 private:
  void record(const char* selector, const tarvex::itx::xpc::Dictionary& event);
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<Received> received_;
};

// A connection that does nothing but hold handlers the test may fire.
class FakeConnection : public tarvex::itx::xpc::IXPCConnection {
 public:
  explicit FakeConnection(std::shared_ptr<FakeDaemon> daemon) : daemon_(std::move(daemon)) {}
  void setExportedObject(tarvex::itx::xpc::SysextXPCInterface* exported) override {
    exported_ = exported;
  }
  void resume() override { resumed = true; }
  void invalidate() override { invalidated = true; }
  void setInterruptionHandler(std::function<void()> handler) override {
    interruption = std::move(handler);
  }
  void setInvalidationHandler(std::function<void()> handler) override {
    invalidation = std::move(handler);
  }
  std::shared_ptr<tarvex::itx::xpc::ProtectionDaemonXPCInterface>
  remoteObjectProxyWithErrorHandler(tarvex::itx::xpc::ErrorHandler) override {
    return daemon_;
  }

  tarvex::itx::xpc::SysextXPCInterface* exported() const { return exported_; }
  bool resumed = false;
  bool invalidated = false;
  std::function<void()> interruption;
  std::function<void()> invalidation;

 private:
  std::shared_ptr<FakeDaemon> daemon_;
  tarvex::itx::xpc::SysextXPCInterface* exported_ = nullptr;
};

// Hands out fake connections to fake daemons and remembers them, newest
// last, so a test can play the daemon and the connection's handlers.
class FakeConnector : public tarvex::itx::xpc::IXPCConnector {
 public:
  struct Opened {
    std::string serviceName;
    uint64_t options;
    std::shared_ptr<FakeConnection> connection;
    std::shared_ptr<FakeDaemon> daemon;
  };

  std::shared_ptr<tarvex::itx::xpc::IXPCConnection> connect(const std::string& serviceName,
                                                            uint64_t options) override {
    auto daemon = std::make_shared<FakeDaemon>();
    daemon->acceptRegistration = acceptRegistration;
    auto connection = std::make_shared<FakeConnection>(daemon);
    std::lock_guard<std::mutex> lock(mutex_);
    opened_.push_back({serviceName, options, connection, daemon});
    return connection;
  }

  std::vector<Opened> opened() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return opened_;
  }
  Opened last() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return opened_.back();
  }

  bool acceptRegistration = true;

 private:
  mutable std::mutex mutex_;
  std::vector<Opened> opened_;
};

// Connects the shared XPC client to a fake daemon for the life of the
// object, as if the daemon had accepted registration (or not).
class FakeDaemonLink {
 public:
  explicit FakeDaemonLink(bool listening = true);
  ~FakeDaemonLink();

  FakeDaemon& daemon() { return *daemon_; }
  void setListening(bool listening);
  // Drops the link: sends then find no connection.
  void disconnect();

 private:
  std::shared_ptr<FakeDaemon> daemon_;
  std::shared_ptr<FakeConnection> connection_;
};

}  // namespace lumo::testing

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
