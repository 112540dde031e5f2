#pragma once

#include <functional>

#include "xpc/linkframe.h"
#include "xpc/xpcconnection.h"

namespace tarvex::itx::xpc::linux_platform {

// Hands a call to the link; `reply` is empty for methods without a block.
using CallSender = std::function<void(CallFrame call, ReplyBlock reply)>;
// Hands the link a one-way call with one record, to encode where it lies.
using RecordSender = std::function<void(const char* selector, const Dictionary& record)>;

// The daemon's object as the extension calls it: every method becomes a call.
class RemoteDaemonProxy final : public ProtectionDaemonXPCInterface {
 public:
  // Records go through sendRecord when given, else as calls.
  explicit RemoteDaemonProxy(CallSender send, RecordSender sendRecord = nullptr)
      : send_(std::move(send)), sendRecord_(std::move(sendRecord)) {}

  void registerWithCompletionHandler(ReplyBlock reply) override;
  void handleFileEvent(const Dictionary& event) override;
  void handlePrinterEvent(const Dictionary& event) override;
  void handleProcessStartEvent(const Dictionary& event) override;
  void handleProcessExitEvent(const Dictionary& event) override;

 private:
  void record(const char* selector, const Dictionary& event);

  CallSender send_;
  RecordSender sendRecord_;
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
