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
// test, in the process tests' scratch installation. Skips when not root.
class RealExtension : public ExtensionProcess {
 protected:
  using Received = FakeDaemon::Received;

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
                                    const std::function<bool(const Received&)>& match);
  std::vector<Received> events(const std::string& selector,
                               const std::function<bool(const Received&)>& match);
  static uint64_t number(const Received& r, const char* key);
  static std::string text(const Received& r, const char* key);

  std::unique_ptr<InProcessDaemon> daemon;
  std::shared_ptr<tarvex::itx::xpc::SysextXPCInterface> extensionSide;
  uint64_t stamp = 0;
};

}  // namespace lumo::testing
