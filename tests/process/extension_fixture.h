#pragma once

#include <gtest/gtest.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "process/child.h"
#include "support/fake_daemon_link.h"
#include "xpc/unixsocketlistener.h"

namespace lumo::testing {

// A daemon inside the test process, on the real socket: records what the
// extension sends and lets the test call the extension back.
class InProcessDaemon {
 public:
  explicit InProcessDaemon(const std::string& runtimeDir, bool acceptRegistration = true);
  ~InProcessDaemon();

  // Waits for the extension's n-th connection and returns its remote proxy.
  std::shared_ptr<tarvex::itx::xpc::SysextXPCInterface> waitForExtension(size_t n = 1);
  FakeDaemon& events() { return *daemon_; }

 private:
  std::shared_ptr<FakeDaemon> daemon_ = std::make_shared<FakeDaemon>();
  std::unique_ptr<tarvex::itx::xpc::linux_platform::UnixSocketListener> listener_;
  std::mutex mutex_;
  std::condition_variable accepted_;
  std::vector<std::shared_ptr<tarvex::itx::xpc::linux_platform::DaemonConnection>> connections_;
  std::vector<std::shared_ptr<tarvex::itx::xpc::SysextXPCInterface>> remotes_;
};

tarvex::itx::xpc::Dictionary policyDict(bool dup, bool web, bool device);

// One scratch installation for the extension's test build: product root
// with the application present, runtime dir for the socket, event FIFO.
class ExtensionProcess : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  void startExtension();
  // One event line for the scripted facility.
  void event(const std::string& line);
  bool extensionLogs(const std::string& text, size_t times = 1) {
    return waitFor(logPath, text, times);
  }
  // Sends a policy or exclusions and waits for the reply; nullopt when none
  // comes within `patience`.
  static std::optional<bool> push(tarvex::itx::xpc::SysextXPCInterface& extension,
                                  uint64_t timestamp, const tarvex::itx::xpc::Dictionary& policy,
                                  std::chrono::milliseconds patience = std::chrono::seconds(10));
  static std::optional<bool> push(tarvex::itx::xpc::SysextXPCInterface& extension,
                                  uint64_t timestamp, const tarvex::itx::xpc::Array& exclusions);

  std::string dir;
  std::string runtimeDir;
  std::string productRoot;
  std::string fifoPath;
  std::string logPath;
  std::unique_ptr<Child> extension;
};

}  // namespace lumo::testing
