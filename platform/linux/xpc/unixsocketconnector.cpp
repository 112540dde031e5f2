#include "xpc/unixsocketconnector.h"

#include <utility>

#include "xpc/calldispatch.h"
#include "xpc/remoteproxies.h"
#include "xpc/socketpath.h"

namespace tarvex::itx::xpc::linux_platform {

UnixSocketConnection::UnixSocketConnection(LinkChannel::Settings settings)
    : channel_(std::make_shared<LinkChannel>(std::move(settings))) {}

UnixSocketConnection::~UnixSocketConnection() { channel_->close(); }

void UnixSocketConnection::setExportedObject(SysextXPCInterface* exported) {
  if (!exported) {
    channel_->setInbound(nullptr);
    return;
  }
  channel_->setInbound([exported](const CallFrame& call, const ReplyBlock& reply) {
    dispatchCall(call, *exported, reply);
  });
}

void UnixSocketConnection::resume() { channel_->resume(); }

void UnixSocketConnection::invalidate() { channel_->invalidate(); }

void UnixSocketConnection::setInterruptionHandler(std::function<void()> handler) {
  channel_->setInterruptionHandler(std::move(handler));
}

void UnixSocketConnection::setInvalidationHandler(std::function<void()> handler) {
  channel_->setInvalidationHandler(std::move(handler));
}

std::shared_ptr<ProtectionDaemonXPCInterface>
UnixSocketConnection::remoteObjectProxyWithErrorHandler(ErrorHandler handler) {
  return std::make_shared<RemoteDaemonProxy>(
      [channel = channel_, handler](CallFrame call, ReplyBlock reply) {
        channel->send(std::move(call), std::move(reply), handler);
      },
      [channel = channel_, handler](const char* selector, const Dictionary& record) {
        channel->sendRecord(selector, record, handler);
      });
}

UnixSocketConnector::UnixSocketConnector(std::string runtimeDir)
    : runtimeDir_(resolveRuntimeDir(runtimeDir)) {}

std::shared_ptr<IXPCConnection> UnixSocketConnector::connect(const std::string& serviceName,
                                                             uint64_t options) {
  LinkChannel::Settings settings;
  settings.serviceName = serviceName;
  settings.socketPath = socketPathFor(serviceName, runtimeDir_, &settings.setupError);
  settings.privileged = (options & kPrivileged) != 0;
  settings.exported = Protocol::Sysext;
  return std::make_shared<UnixSocketConnection>(std::move(settings));
}

}  // namespace tarvex::itx::xpc::linux_platform
