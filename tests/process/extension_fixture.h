#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <condition_variable>
#include <filesystem>
#include <future>
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
  explicit InProcessDaemon(const std::string& runtimeDir);
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

// One scratch installation for the extension's test build (product root
// with the application present, runtime dir for the socket, event FIFO),
// and the extension on it. Skips when not root.
class ExtensionProcess : public ::testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "the daemon link only admits root peers";
    std::filesystem::create_directories(runtimeDir);
    for (const std::string& d : {dir, runtimeDir}) {
      std::filesystem::permissions(d, std::filesystem::perms::all);
    }
    std::filesystem::create_directories(productRoot + "/opt/tarvex/lumo/app");
    std::filesystem::create_directories(productRoot + "/opt/tarvex/lumo/EP");
    ASSERT_EQ(mkfifo(fifoPath.c_str(), 0600), 0);
  }
  void TearDown() override {
    extension.reset();
    if (HasFailure()) std::fprintf(stderr, "extension log kept in %s\n", logPath.c_str());
    if (!HasFailure()) std::filesystem::remove_all(dir);
  }

  void startExtension() {
    extension = std::make_unique<Child>(
        Child::Options{{LUMO_ES_SCRIPTED_PATH},
                       {"LUMO_LOG_STDERR=1", "LUMO_LOG_DEBUG=1", "LUMO_PRODUCT_ROOT=" + productRoot,
                        "LUMO_RUNTIME_DIR=" + runtimeDir, "LUMO_SCRIPT_FIFO=" + fifoPath},
                       logPath});
  }
  // One event line for the scripted facility.
  void event(const std::string& line);
  bool extensionLogs(const std::string& text, size_t times = 1) {
    return waitFor(logPath, text, times);
  }
  // Sends a policy (a dictionary) or exclusions (an array) and waits for the
  // reply; nullopt when none comes in time. The reply's state is shared with
  // the block, which may come after the test is done.
  template <typename Payload>
  static std::optional<bool> push(tarvex::itx::xpc::SysextXPCInterface& extension,
                                  uint64_t timestamp, const Payload& payload,
                                  std::chrono::milliseconds patience = std::chrono::seconds(10)) {
    auto reply = std::make_shared<std::promise<bool>>();
    std::future<bool> replied = reply->get_future();
    auto block = [reply](bool value) { reply->set_value(value); };
    if constexpr (std::is_same_v<Payload, tarvex::itx::xpc::Array>) {
      extension.setExclusions(&payload, timestamp, block);
    } else {
      extension.setPolicy(&payload, timestamp, block);
    }
    if (replied.wait_for(patience) != std::future_status::ready) return std::nullopt;
    return replied.get();
  }

  // Short: the socket's path must fit its address.
  const std::string dir = std::filesystem::temp_directory_path() /
                          ("lumo-process-" + std::to_string(getpid()) + "-" + [] {
                            static int count = 0;
                            return std::to_string(++count);
                          }());
  const std::string runtimeDir = dir + "/run";
  const std::string productRoot = dir + "/root";
  const std::string fifoPath = dir + "/events";
  const std::string logPath = dir + "/extension.log";
  std::unique_ptr<Child> extension;
};

}  // namespace lumo::testing
