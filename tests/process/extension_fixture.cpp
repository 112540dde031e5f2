#include "process/extension_fixture.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <future>

namespace lumo::testing {

namespace fs = std::filesystem;
using tarvex::itx::xpc::Dictionary;
using tarvex::itx::xpc::Number;
using tarvex::itx::xpc::linux_platform::DaemonConnection;

InProcessDaemon::InProcessDaemon(const std::string& runtimeDir, bool acceptRegistration) {
  daemon_->acceptRegistration = acceptRegistration;
  listener_ = std::make_unique<tarvex::itx::xpc::linux_platform::UnixSocketListener>(
      SysExtXPCClient::kServiceName, tarvex::itx::xpc::IXPCConnector::kPrivileged, runtimeDir);
  listener_->start([this](std::shared_ptr<DaemonConnection> connection) {
    connection->setExportedObject(daemon_.get());
    auto remote = connection->remoteObjectProxyWithErrorHandler([](const std::string&) {});
    connection->resume();
    std::lock_guard<std::mutex> lock(mutex_);
    connections_.push_back(std::move(connection));
    remotes_.push_back(std::move(remote));
    accepted_.notify_all();
  });
}

InProcessDaemon::~InProcessDaemon() {
  listener_->stop();
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto& c : connections_) c->invalidate();
}

std::shared_ptr<tarvex::itx::xpc::SysextXPCInterface> InProcessDaemon::waitForExtension(size_t n) {
  std::unique_lock<std::mutex> lock(mutex_);
  const bool came =
      accepted_.wait_for(lock, std::chrono::seconds(15), [&] { return remotes_.size() >= n; });
  return came ? remotes_[n - 1] : nullptr;
}

Dictionary policyDict(bool dup, bool web, bool device) {
  return {{{"antitamperingon", Number::ofBool(false)},
           {"dupon", Number::ofBool(dup)},
           {"webcontrolon", Number::ofBool(web)},
           {"devicecontrolon", Number::ofBool(device)}}};
}

void ExtensionProcess::SetUp() {
  if (geteuid() != 0) GTEST_SKIP() << "the daemon link only admits root peers";
  static int counter = 0;
  dir = (fs::temp_directory_path() /
         ("lumo-process-" + std::to_string(getpid()) + "-" + std::to_string(++counter)))
            .string();
  runtimeDir = dir + "/run";
  productRoot = dir + "/root";
  fifoPath = dir + "/events";
  logPath = dir + "/extension.log";
  fs::create_directories(runtimeDir);
  fs::permissions(dir, fs::perms::all);
  fs::permissions(runtimeDir, fs::perms::all);
  fs::create_directories(productRoot + "/opt/tarvex/lumo/app");
  fs::create_directories(productRoot + "/opt/tarvex/lumo/EP");
  ASSERT_EQ(mkfifo(fifoPath.c_str(), 0600), 0);
}

void ExtensionProcess::TearDown() {
  extension.reset();
  if (!dir.empty() && !HasFailure()) fs::remove_all(dir);
  if (HasFailure()) std::fprintf(stderr, "extension log kept in %s\n", logPath.c_str());
}

void ExtensionProcess::startExtension() {
  extension = std::make_unique<Child>(
      Child::Options{{LUMO_ES_SCRIPTED_PATH},
                     {"LUMO_LOG_STDERR=1", "LUMO_LOG_DEBUG=1", "LUMO_PRODUCT_ROOT=" + productRoot,
                      "LUMO_RUNTIME_DIR=" + runtimeDir, "LUMO_SCRIPT_FIFO=" + fifoPath},
                     logPath});
}

void ExtensionProcess::event(const std::string& line) {
  const int fd = open(fifoPath.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
  ASSERT_GE(fd, 0) << "the extension has not opened its event FIFO";
  const std::string text = line + "\n";
  ASSERT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  close(fd);
}

namespace {

// The reply's state is shared with the block, which may come after the
// test is done.
std::optional<bool> awaitReply(const std::function<void(tarvex::itx::xpc::ReplyBlock)>& send,
                               std::chrono::milliseconds patience) {
  auto reply = std::make_shared<std::promise<bool>>();
  std::future<bool> replied = reply->get_future();
  send([reply](bool value) { reply->set_value(value); });
  if (replied.wait_for(patience) != std::future_status::ready) return std::nullopt;
  return replied.get();
}

}  // namespace

std::optional<bool> ExtensionProcess::push(tarvex::itx::xpc::SysextXPCInterface& extension,
                                           uint64_t timestamp, const Dictionary& policy,
                                           std::chrono::milliseconds patience) {
  return awaitReply([&](auto reply) { extension.setPolicy(&policy, timestamp, reply); }, patience);
}

std::optional<bool> ExtensionProcess::push(tarvex::itx::xpc::SysextXPCInterface& extension,
                                           uint64_t timestamp,
                                           const tarvex::itx::xpc::Array& exclusions) {
  return awaitReply([&](auto reply) { extension.setExclusions(&exclusions, timestamp, reply); },
                    std::chrono::seconds(10));
}

}  // namespace lumo::testing
