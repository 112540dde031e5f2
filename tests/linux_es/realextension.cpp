#include "linux_es/realextension.h"

#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <future>
#include <thread>

namespace lumo::testing {

namespace fs = std::filesystem;
using tarvex::itx::xpc::Array;
using tarvex::itx::xpc::Dictionary;
using tarvex::itx::xpc::Number;
using tarvex::itx::xpc::Value;

void RealExtension::SetUp() {
  if (geteuid() != 0) GTEST_SKIP() << "the facility and the daemon link need root";
  static int counter = 0;
  dir = (fs::temp_directory_path() /
         ("lumo-e2e-" + std::to_string(getpid()) + "-" + std::to_string(++counter)))
            .string();
  runtimeDir = dir + "/run";
  productRoot = dir + "/root";
  logPath = dir + "/extension.log";
  fs::create_directories(runtimeDir);
  fs::permissions(dir, fs::perms::all);
  fs::permissions(runtimeDir, fs::perms::all);
  fs::create_directories(productRoot + "/opt/tarvex/lumo/app");
  fs::create_directories(productRoot + "/opt/tarvex/lumo/EP");
}

void RealExtension::TearDown() {
  extension.reset();
  extensionSide.reset();
  daemon.reset();
  if (!dir.empty() && !HasFailure()) fs::remove_all(dir);
  if (HasFailure()) std::fprintf(stderr, "extension log kept in %s\n", logPath.c_str());
}

void RealExtension::start(std::vector<std::string> env) {
  daemon = std::make_unique<InProcessDaemon>(runtimeDir);
  env.insert(env.end(), {"LUMO_LOG_STDERR=1", "LUMO_PRODUCT_ROOT=" + productRoot,
                         "LUMO_RUNTIME_DIR=" + runtimeDir});
  extension = std::make_unique<Child>(Child::Options{{LUMO_ES_PATH}, env, logPath});
  extensionSide = daemon->waitForExtension();
  ASSERT_TRUE(extensionSide) << "lumo-es did not connect";
  ASSERT_TRUE(extensionLogs("Registration success."));
  const Dictionary policy = policyDict(true, false, false);
  auto accepted = std::make_shared<std::promise<bool>>();
  extensionSide->setPolicy(&policy, ++stamp, [accepted](bool yes) { accepted->set_value(yes); });
  auto answer = accepted->get_future();
  ASSERT_EQ(answer.wait_for(std::chrono::seconds(15)), std::future_status::ready);
  ASSERT_TRUE(answer.get());
}

void RealExtension::exclude(const std::vector<std::pair<std::string, std::string>>& kindAndPath) {
  Array payload;
  for (const auto& [kind, path] : kindAndPath) {
    const Dictionary match{{{"comp_value", Value(path)}, {"operator", Number::ofUnsignedInt(1)}}};
    payload.items.push_back(Value(
        Dictionary{{{"application_description", Value(Dictionary{{{kind, Value(match)}}})}}}));
  }
  auto replied = std::make_shared<std::promise<void>>();
  extensionSide->setExclusions(&payload, ++stamp, [replied](bool) { replied->set_value(); });
  ASSERT_EQ(replied->get_future().wait_for(std::chrono::seconds(15)), std::future_status::ready);
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
  std::vector<Received> out;
  for (auto& r : daemon->events().received(selector)) {
    if (match(r)) out.push_back(r);
  }
  return out;
}

std::optional<RealExtension::Received> RealExtension::waitEvent(
    const std::string& selector, const std::function<bool(const Received&)>& match,
    std::chrono::milliseconds timeout) {
  const auto end = std::chrono::steady_clock::now() + timeout;
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
