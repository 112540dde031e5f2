#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "process/child.h"
#include "process/extension_fixture.h"

namespace lumo::testing {

// lumo-es, the real binary on the real kernel, against a daemon inside the
// test. Skips when not root (the facility and the daemon link need it).
class RealExtension : public ::testing::Test {
 protected:
  using Received = FakeDaemon::Received;

  void SetUp() override;
  void TearDown() override;

  // Starts lumo-es, waits for its registration and pushes a policy with
  // data protection on.
  void start(std::vector<std::string> env = {});
  void exclude(const std::vector<std::pair<std::string, std::string>>& kindAndPath);
  // Runs argv to its end, its output thrown away: the exit status, 126 when
  // the exec itself was refused; its pid in *pid.
  static int run(const std::vector<std::string>& argv, pid_t* pid = nullptr);

  // Waits until an event of `selector` satisfies `match`.
  std::optional<Received> waitEvent(const std::string& selector,
                                    const std::function<bool(const Received&)>& match,
                                    std::chrono::milliseconds timeout = std::chrono::seconds(10));
  std::vector<Received> events(const std::string& selector,
                               const std::function<bool(const Received&)>& match);
  bool extensionLogs(const std::string& text) { return waitFor(logPath, text); }

  static uint64_t number(const Received& r, const char* key);
  static std::string text(const Received& r, const char* key);

  std::string dir;
  std::string runtimeDir;
  std::string productRoot;
  std::string logPath;
  std::unique_ptr<InProcessDaemon> daemon;
  std::shared_ptr<tarvex::itx::xpc::SysextXPCInterface> extensionSide;
  std::unique_ptr<Child> extension;
  uint64_t stamp = 0;
};

}  // namespace lumo::testing
