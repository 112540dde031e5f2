#include "xpc/daemonconnection.h"

#include <utility>

#include "xpc/calldispatch.h"
#include "xpc/remoteproxies.h"

namespace tarvex::itx::xpc::linux_platform {

namespace {

LinkChannel::Settings acceptedSettings(const std::string& serviceName, int fd, bool privileged) {
  LinkChannel::Settings settings;
  settings.serviceName = serviceName;
  settings.connectedFd = fd;
  settings.privileged = privileged;
  settings.exported = Protocol::ProtectionDaemon;
  return settings;
}

}  // namespace

DaemonConnection::DaemonConnection(const std::string& serviceName, int connectedFd,
                                   bool privileged, const PeerCredentials& peer)
    : peer_(peer),
      channel_(std::make_shared<LinkChannel>(
          acceptedSettings(serviceName, connectedFd, privileged))) {}

DaemonConnection::~DaemonConnection() { channel_->close(); }

void DaemonConnection::setExportedObject(ProtectionDaemonXPCInterface* exported) {
  if (!exported) {
    channel_->setInbound(nullptr);
    return;
  }
  channel_->setInbound([exported](const CallFrame& call, const ReplyBlock& reply) {
    dispatchCall(call, *exported, reply);
  });
}

void DaemonConnection::setExportedObject(std::weak_ptr<ProtectionDaemonXPCInterface> exported) {
  channel_->setInbound([exported = std::move(exported)](const CallFrame& call,
                                                        const ReplyBlock& reply) {
    if (std::shared_ptr<ProtectionDaemonXPCInterface> object = exported.lock()) {
      dispatchCall(call, *object, reply);
    }
  });
}

void DaemonConnection::setInterruptionHandler(std::function<void()> handler) {
  channel_->setInterruptionHandler(std::move(handler));
}

void DaemonConnection::setInvalidationHandler(std::function<void()> handler) {
  channel_->setInvalidationHandler(std::move(handler));
}

void DaemonConnection::resume() { channel_->resume(); }

void DaemonConnection::invalidate() { channel_->invalidate(); }

std::shared_ptr<SysextXPCInterface> DaemonConnection::remoteObjectProxyWithErrorHandler(
    ErrorHandler handler) {
  return std::make_shared<RemoteSysextProxy>(
      [channel = channel_, handler = std::move(handler)](CallFrame call, ReplyBlock reply) {
        channel->send(std::move(call), std::move(reply), handler);
      });
}

}  // namespace tarvex::itx::xpc::linux_platform
