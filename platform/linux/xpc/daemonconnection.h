#pragma once

#include <memory>
#include <string>

#include "xpc/linkchannel.h"
#include "xpc/seqpacket.h"
#include "xpc/xpcconnection.h"

namespace tarvex::itx::xpc::linux_platform {

// The daemon's end of one accepted link: it exports
// ProtectionDaemonXPCInterface and calls the extension's SysextXPCInterface.
// Set it up, then resume(); until then nothing is read. Handlers, the
// extension's calls and reply blocks run on the link's thread, as on the
// extension's end (LinkChannel). Dropping the last reference closes the
// socket without waiting.
class DaemonConnection {
 public:
  DaemonConnection(const std::string& serviceName, int connectedFd, bool privileged,
                   const PeerCredentials& peer);
  ~DaemonConnection();
  DaemonConnection(const DaemonConnection&) = delete;
  DaemonConnection& operator=(const DaemonConnection&) = delete;

  // The object must outlive the connection's calls to it.
  void setExportedObject(ProtectionDaemonXPCInterface* exported);
  // Held for each call: an object that owns its connection may go while a
  // call to it runs, and goes when that call returns.
  void setExportedObject(std::weak_ptr<ProtectionDaemonXPCInterface> exported);
  void setInterruptionHandler(std::function<void()> handler);
  void setInvalidationHandler(std::function<void()> handler);
  void resume();
  void invalidate();
  // The extension's object; nil arguments travel as null pointers.
  std::shared_ptr<SysextXPCInterface> remoteObjectProxyWithErrorHandler(ErrorHandler handler);

  const PeerCredentials& peer() const { return peer_; }

 private:
  const PeerCredentials peer_;
  const std::shared_ptr<LinkChannel> channel_;
};

}  // namespace tarvex::itx::xpc::linux_platform
