#include "linux_es/realextension.h"

#include <sys/wait.h>
#include <unistd.h>

#include <condition_variable>
#include <filesystem>
#include <mutex>
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

void RealExtension::startWithPolicy(bool dup, bool web, bool device,
                                    std::vector<std::string> env) {
  daemon = std::make_unique<InProcessDaemon>(runtimeDir);
  env.insert(env.end(), {"LUMO_LOG_STDERR=1", "LUMO_PRODUCT_ROOT=" + productRoot,
                         "LUMO_RUNTIME_DIR=" + runtimeDir});
  extension = std::make_unique<Child>(Child::Options{{LUMO_ES_PATH}, env, logPath});
  extensionSide = daemon->waitForExtension();
  ASSERT_TRUE(extensionSide) << "lumo-es did not connect";
  ASSERT_TRUE(extensionLogs("Registration success."));
  std::mutex mutex;
  std::condition_variable done;
  bool replied = false, value = false;
  const Dictionary policy = policyDict(dup, web, device);
  extensionSide->setPolicy(&policy, ++stamp, [&](bool v) {
    std::lock_guard<std::mutex> lock(mutex);
    replied = true;
    value = v;
    done.notify_all();
  });
  std::unique_lock<std::mutex> lock(mutex);
  ASSERT_TRUE(done.wait_for(lock, std::chrono::seconds(15), [&] { return replied; }));
  ASSERT_TRUE(value);
}

void RealExtension::exclude(const std::vector<std::pair<std::string, std::string>>& kindAndPath) {
  Array payload;
  for (const auto& [kind, path] : kindAndPath) {
    Dictionary description;
    description.entries.push_back(
        {kind, Value(Dictionary{{{"comp_value", Value(path)},
                                 {"operator", Value(Number::ofUnsignedInt(1))}}})});
    payload.items.push_back(
        Value(Dictionary{{{"application_description", Value(std::move(description))}}}));
  }
  std::mutex mutex;
  std::condition_variable done;
  bool replied = false;
  extensionSide->setExclusions(&payload, ++stamp, [&](bool) {
    std::lock_guard<std::mutex> lock(mutex);
    replied = true;
    done.notify_all();
  });
  std::unique_lock<std::mutex> lock(mutex);
  ASSERT_TRUE(done.wait_for(lock, std::chrono::seconds(15), [&] { return replied; }));
}

pid_t RealExtension::run(const std::vector<std::string>& argv) {
  std::vector<char*> args;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    execv(args[0], args.data());
    _exit(127);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return pid;
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
