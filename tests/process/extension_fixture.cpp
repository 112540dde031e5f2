#include "process/extension_fixture.h"

#include <fcntl.h>
#include <unistd.h>

namespace lumo::testing {

using tarvex::itx::xpc::Dictionary;
using tarvex::itx::xpc::Number;
using tarvex::itx::xpc::linux_platform::DaemonConnection;

InProcessDaemon::InProcessDaemon(const std::string& runtimeDir) {
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

void ExtensionProcess::event(const std::string& line) {
  const int fd = open(fifoPath.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
  ASSERT_GE(fd, 0) << "the extension has not opened its event FIFO";
  const std::string text = line + "\n";
  ASSERT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  close(fd);
}

}  // namespace lumo::testing
