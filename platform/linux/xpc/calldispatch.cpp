#include "xpc/calldispatch.h"

#include <string_view>

#include "xpc/selectors.h"

namespace tarvex::itx::xpc::linux_platform {

namespace {

// Accessors that hold even for a call that skipped the check.
const Value& arg(const CallFrame& call, size_t i) {
  static const Value kNil;
  return i < call.args.size() ? call.args[i] : kNil;
}
uint64_t unsignedArg(const CallFrame& call, size_t i) {
  const Number* n = arg(call, i).number();
  return n ? n->unsignedLongLongValue() : 0;
}
bool boolArg(const CallFrame& call, size_t i) {
  const Number* n = arg(call, i).number();
  return n && n->bits != 0;
}

}  // namespace

void dispatchCall(const CallFrame& call, SysextXPCInterface& target, const ReplyBlock& reply) {
  namespace s = selectors;
  const std::string_view selector = call.selector;
  if (selector == s::kAddMountPoint) {
    target.addMountPoint(arg(call, 0).string(), unsignedArg(call, 1));
  } else if (selector == s::kRemoveMountPoint) {
    target.removeMountPoint(arg(call, 0).string());
  } else if (selector == s::kClearMountPoints) {
    target.clearMountPoints();
  } else if (selector == s::kSetPolicy) {
    target.setPolicy(arg(call, 0).dictionary(), unsignedArg(call, 1), reply);
  } else if (selector == s::kSetExclusions) {
    target.setExclusions(arg(call, 0).array(), unsignedArg(call, 1), reply);
  } else if (selector == s::kSetPrinter) {
    target.setPrinter(arg(call, 0).string(), boolArg(call, 1));
  }
}

void dispatchCall(const CallFrame& call, ProtectionDaemonXPCInterface& target,
                  const ReplyBlock& reply) {
  namespace s = selectors;
  const std::string_view selector = call.selector;
  if (selector == s::kRegister) {
    target.registerWithCompletionHandler(reply);
    return;
  }
  const Dictionary* event = arg(call, 0).dictionary();
  if (!event) return;
  if (selector == s::kHandleFileEvent) {
    target.handleFileEvent(*event);
  } else if (selector == s::kHandlePrinterEvent) {
    target.handlePrinterEvent(*event);
  } else if (selector == s::kHandleProcessStartEvent) {
    target.handleProcessStartEvent(*event);
  } else if (selector == s::kHandleProcessExitEvent) {
    target.handleProcessExitEvent(*event);
  }
}

}  // namespace tarvex::itx::xpc::linux_platform
