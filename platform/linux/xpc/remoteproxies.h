#pragma once

#include <functional>

#include "xpc/linkframe.h"
#include "xpc/xpcconnection.h"

namespace tarvex::itx::xpc::linux_platform {

// Hands a call to the link; `reply` is empty for methods without a block.
using CallSender = std::function<void(CallFrame call, ReplyBlock reply)>;

// The daemon's object as the extension calls it: every method becomes a call.
class RemoteDaemonProxy final : public ProtectionDaemonXPCInterface {
 public:
  explicit RemoteDaemonProxy(CallSender send) : send_(std::move(send)) {}

  void registerWithCompletionHandler(ReplyBlock reply) override;
  void handleFileEvent(const Dictionary& event) override;
  void handlePrinterEvent(const Dictionary& event) override;
  void handleProcessStartEvent(const Dictionary& event) override;
  void handleProcessExitEvent(const Dictionary& event) override;

 private:
  CallSender send_;
};

// The extension's object as the daemon calls it. Null pointers travel as nil.
class RemoteSysextProxy final : public SysextXPCInterface {
 public:
  explicit RemoteSysextProxy(CallSender send) : send_(std::move(send)) {}

  void addMountPoint(const std::string* volume, uint64_t mountType) override;
  void removeMountPoint(const std::string* volume) override;
  void clearMountPoints() override;
  void setPolicy(const Dictionary* policy, uint64_t timestamp, ReplyBlock reply) override;
  void setExclusions(const Array* exclusions, uint64_t timestamp, ReplyBlock reply) override;
  void setPrinter(const std::string* printer, bool verdict) override;

 private:
  CallSender send_;
};

}  // namespace tarvex::itx::xpc::linux_platform
