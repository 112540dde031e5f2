#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "xpc/xpcvalue.h"

namespace tarvex::itx::xpc {

using ReplyBlock = std::function<void(bool)>;

// What the daemon implements; the extension calls it.
class ProtectionDaemonXPCInterface {
 public:
  virtual ~ProtectionDaemonXPCInterface() = default;
  virtual void registerWithCompletionHandler(ReplyBlock reply) = 0;
  virtual void handleFileEvent(const Dictionary& event) = 0;
  virtual void handlePrinterEvent(const Dictionary& event) = 0;
  virtual void handleProcessStartEvent(const Dictionary& event) = 0;
  virtual void handleProcessExitEvent(const Dictionary& event) = 0;
};

// What the extension exports; the daemon calls it. Object arguments the
// platform can deliver as nil arrive as null pointers.
class SysextXPCInterface {
 public:
  virtual ~SysextXPCInterface() = default;
  virtual void addMountPoint(const std::string* volume, uint64_t mountType) = 0;
  virtual void removeMountPoint(const std::string* volume) = 0;
  virtual void clearMountPoints() = 0;
  virtual void setPolicy(const Dictionary* policy, uint64_t timestamp, ReplyBlock reply) = 0;
  virtual void setExclusions(const Array* exclusions, uint64_t timestamp, ReplyBlock reply) = 0;
  virtual void setPrinter(const std::string* printer, bool verdict) = 0;
};

using ErrorHandler = std::function<void(const std::string& localizedDescription)>;

// One connection to the daemon's service, shaped like the platform's XPC
// connection: configure, resume, then talk through the remote proxy.
class IXPCConnection {
 public:
  virtual ~IXPCConnection() = default;
  virtual void setExportedObject(SysextXPCInterface* exported) = 0;
  virtual void resume() = 0;
  virtual void invalidate() = 0;
  virtual void setInterruptionHandler(std::function<void()> handler) = 0;
  virtual void setInvalidationHandler(std::function<void()> handler) = 0;
  virtual std::shared_ptr<ProtectionDaemonXPCInterface> remoteObjectProxyWithErrorHandler(
      ErrorHandler handler) = 0;
};

// Opens connections to a named service ("privileged" is the platform's
// option for a service that must run as root).
class IXPCConnector {
 public:
  static constexpr uint64_t kPrivileged = 4096;
  virtual ~IXPCConnector() = default;
  virtual std::shared_ptr<IXPCConnection> connect(const std::string& serviceName,
                                                  uint64_t options) = 0;
};

}  // namespace tarvex::itx::xpc
