#include "linux_es/realextension.h"

#include <sys/wait.h>
#include <unistd.h>

#include <thread>

namespace lumo::testing {

using tarvex::itx::xpc::Array;
using tarvex::itx::xpc::Dictionary;
using tarvex::itx::xpc::Number;
using tarvex::itx::xpc::Value;

void RealExtension::TearDown() {
  extension.reset();
  extensionSide.reset();
  daemon.reset();
  ExtensionProcess::TearDown();
}

void RealExtension::start(std::vector<std::string> env) {
  daemon = std::make_unique<InProcessDaemon>(runtimeDir);
  env.insert(env.end(), {"LUMO_LOG_STDERR=1", "LUMO_PRODUCT_ROOT=" + productRoot,
                         "LUMO_RUNTIME_DIR=" + runtimeDir});
  extension = std::make_unique<Child>(Child::Options{{LUMO_ES_PATH}, env, logPath});
  extensionSide = daemon->waitForExtension();
  ASSERT_TRUE(extensionSide) << "lumo-es did not connect";
  ASSERT_TRUE(extensionLogs("Registration success."));
  ASSERT_EQ(push(*extensionSide, ++stamp, policyDict(true, false, false)), true);
}

void RealExtension::exclude(const std::vector<std::pair<std::string, std::string>>& kindAndPath) {
  Array payload;
  for (const auto& [kind, path] : kindAndPath) {
    const Dictionary match{{{"comp_value", Value(path)}, {"operator", Number::ofUnsignedInt(1)}}};
    payload.items.push_back(Value(
        Dictionary{{{"application_description", Value(Dictionary{{{kind, Value(match)}}})}}}));
  }
  ASSERT_TRUE(push(*extensionSide, ++stamp, payload).has_value());
}

int RealExtension::run(const std::vector<std::string>& argv, pid_t* pid) {
  std::vector<char*> args;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    freopen("/dev/null", "w", stdout);
    freopen("/dev/null", "w", stderr);
    execv(args[0], args.data());
    _exit(errno == EACCES || errno == EPERM ? 126 : 127);
  }
  if (pid != nullptr) *pid = child;
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::vector<RealExtension::Received> RealExtension::events(
    const std::string& selector, const std::function<bool(const Received&)>& match) {
  std::vector<Received> out = daemon->events().received(selector);
  std::erase_if(out, [&](const Received& r) { return !match(r); });
  return out;
}

std::optional<RealExtension::Received> RealExtension::waitEvent(
    const std::string& selector, const std::function<bool(const Received&)>& match) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  do {
    auto found = events(selector, match);
    if (!found.empty()) return found.front();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  } while (std::chrono::steady_clock::now() < end);
  return std::nullopt;
}

uint64_t RealExtension::number(const Received& r, const char* key) {
  const Value* v = r.event.find(key);
  return v != nullptr && v->number() != nullptr ? v->number()->unsignedLongLongValue() : ~0ull;
}

std::string RealExtension::text(const Received& r, const char* key) {
  const Value* v = r.event.find(key);
  return v != nullptr && v->string() != nullptr ? *v->string() : std::string();
}

}  // namespace lumo::testing
