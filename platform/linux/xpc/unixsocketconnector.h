#pragma once

#include <memory>
#include <string>

#include "xpc/linkchannel.h"
#include "xpc/xpcconnection.h"

namespace tarvex::itx::xpc::linux_platform {

// The extension's end of one link, over the service's socket (socketpath.h).
// Behaves as the XPC client expects (see LinkChannel): resume() returns at
// once; the socket is connected on the thread when the first call is queued;
// handlers, the daemon's calls and reply blocks run on the link's thread.
// Calls from the daemon are checked against SysextXPCInterface before they
// reach the exported object. Dropping the last reference never blocks.
class UnixSocketConnection final : public IXPCConnection {
 public:
  explicit UnixSocketConnection(LinkChannel::Settings settings);
  ~UnixSocketConnection() override;
  UnixSocketConnection(const UnixSocketConnection&) = delete;
  UnixSocketConnection& operator=(const UnixSocketConnection&) = delete;

  void setExportedObject(SysextXPCInterface* exported) override;
  void resume() override;
  void invalidate() override;
  void setInterruptionHandler(std::function<void()> handler) override;
  void setInvalidationHandler(std::function<void()> handler) override;
  // One-way calls are queued; registerWithCompletionHandler's block runs with
  // the daemon's answer. Calls after the link ended get `handler`, or are
  // dropped silently once invalidate() was called.
  std::shared_ptr<ProtectionDaemonXPCInterface> remoteObjectProxyWithErrorHandler(
      ErrorHandler handler) override;

 private:
  const std::shared_ptr<LinkChannel> channel_;
};

// Opens links to services on this machine. With IXPCConnector::kPrivileged
// in `options` the peer must run as root, else the link is refused with an
// Error line naming its pid and uid.
class UnixSocketConnector final : public IXPCConnector {
 public:
  // runtimeDir: where the sockets are; empty for $LUMO_RUNTIME_DIR, else
  // /run/tarvex (read once, here).
  explicit UnixSocketConnector(std::string runtimeDir = {});

  std::shared_ptr<IXPCConnection> connect(const std::string& serviceName,
                                          uint64_t options) override;

  const std::string& runtimeDir() const { return runtimeDir_; }

 private:
  const std::string runtimeDir_;
};

}  // namespace tarvex::itx::xpc::linux_platform
