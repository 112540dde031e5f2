#include "process/extension_fixture.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

namespace lumo::testing {

namespace fs = std::filesystem;
using tarvex::itx::xpc::Dictionary;
using tarvex::itx::xpc::Number;
using tarvex::itx::xpc::linux_platform::DaemonConnection;
using tarvex::itx::xpc::linux_platform::UnixSocketListener;

InProcessDaemon::InProcessDaemon(const std::string& runtimeDir, bool acceptRegistration)
    : daemon_(std::make_shared<FakeDaemon>()) {
  daemon_->acceptRegistration = acceptRegistration;
  listener_ = std::make_unique<UnixSocketListener>(
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
  if (!accepted_.wait_for(lock, std::chrono::seconds(15), [&] { return remotes_.size() >= n; })) {
    return nullptr;
  }
  return remotes_[n - 1];
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
  extension = std::make_unique<Child>(Child::Options{
      {LUMO_ES_SCRIPTED_PATH},
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

Dictionary policyDict(bool dup, bool web, bool device) {
  Dictionary d;
  d.entries.push_back({"antitamperingon", Number::ofBool(false)});
  d.entries.push_back({"dupon", Number::ofBool(dup)});
  d.entries.push_back({"webcontrolon", Number::ofBool(web)});
  d.entries.push_back({"devicecontrolon", Number::ofBool(device)});
  return d;
}

}  // namespace lumo::testing
