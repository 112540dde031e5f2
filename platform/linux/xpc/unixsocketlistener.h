#pragma once

#include <sys/types.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "xpc/daemonconnection.h"

namespace tarvex::itx::xpc::linux_platform {

// The daemon's side: listens on a service's socket (socketpath.h) and hands
// every admitted peer to the accept handler as a DaemonConnection. With
// IXPCConnector::kPrivileged in `options` only root peers are admitted; a
// refused peer gets an Error line naming its pid and uid and is closed.
class UnixSocketListener {
 public:
  // Runs on the listener's thread. The connection closes when the handler
  // keeps no reference to it.
  using AcceptHandler = std::function<void(std::shared_ptr<DaemonConnection> connection)>;

  // runtimeDir: empty for $LUMO_RUNTIME_DIR, else /run/tarvex.
  UnixSocketListener(std::string serviceName, uint64_t options, std::string runtimeDir = {});
  ~UnixSocketListener();
  UnixSocketListener(const UnixSocketListener&) = delete;
  UnixSocketListener& operator=(const UnixSocketListener&) = delete;

  // Binds (socketbind.h) and starts accepting. False, with an Error line,
  // when the socket can't be set up.
  bool start(AcceptHandler onAccept);
  // Stops accepting and removes the socket; accepted connections live on.
  void stop();

  const std::string& socketPath() const { return path_; }

 private:
  void run();
  void accept();

  const std::string serviceName_;
  const bool privileged_;
  std::string path_;
  std::string pathError_;
  AcceptHandler onAccept_;
  int listenFd_ = -1;
  int wakeFd_ = -1;
  ino_t inode_ = 0;
  std::atomic<bool> stopping_{false};
  std::thread thread_;
};

}  // namespace tarvex::itx::xpc::linux_platform
