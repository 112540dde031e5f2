#include "xpc/remoteproxies.h"

#include <utility>

#include "xpc/selectors.h"

namespace tarvex::itx::xpc::linux_platform {

namespace {

CallFrame oneWay(const char* selector, std::vector<Value> args) {
  return CallFrame{selector, std::move(args), std::nullopt};
}

// The link assigns the id; any value marks the call as expecting a reply.
CallFrame withReply(const char* selector, std::vector<Value> args) {
  return CallFrame{selector, std::move(args), uint64_t{0}};
}


template <typename T>
Value orNil(const T* object) {
  return object ? Value(*object) : Value();
}

}  // namespace

void RemoteDaemonProxy::registerWithCompletionHandler(ReplyBlock reply) {
  send_(withReply(selectors::kRegister, {}), std::move(reply));
}

void RemoteDaemonProxy::record(const char* selector, const Dictionary& event) {
  if (sendRecord_) {
    sendRecord_(selector, event);
    return;
  }
  // Copied once: a braced list would copy it into the list and again out.
  std::vector<Value> args;
  args.emplace_back(event);
  send_(oneWay(selector, std::move(args)), nullptr);
}

void RemoteDaemonProxy::handleFileEvent(const Dictionary& event) {
  record(selectors::kHandleFileEvent, event);
}

void RemoteDaemonProxy::handlePrinterEvent(const Dictionary& event) {
  record(selectors::kHandlePrinterEvent, event);
}

void RemoteDaemonProxy::handleProcessStartEvent(const Dictionary& event) {
  record(selectors::kHandleProcessStartEvent, event);
}

void RemoteDaemonProxy::handleProcessExitEvent(const Dictionary& event) {
  record(selectors::kHandleProcessExitEvent, event);
}

void RemoteSysextProxy::addMountPoint(const std::string* volume, uint64_t mountType) {
  send_(oneWay(selectors::kAddMountPoint,
               {orNil(volume), Number::ofUnsignedLongLong(mountType)}),
        nullptr);
}

void RemoteSysextProxy::removeMountPoint(const std::string* volume) {
  send_(oneWay(selectors::kRemoveMountPoint, {orNil(volume)}), nullptr);
}

void RemoteSysextProxy::clearMountPoints() {
  send_(oneWay(selectors::kClearMountPoints, {}), nullptr);
}

void RemoteSysextProxy::setPolicy(const Dictionary* policy, uint64_t timestamp,
                                  ReplyBlock reply) {
  send_(withReply(selectors::kSetPolicy, {orNil(policy), Number::ofUnsignedLongLong(timestamp)}),
        std::move(reply));
}

void RemoteSysextProxy::setExclusions(const Array* exclusions, uint64_t timestamp,
                                      ReplyBlock reply) {
  send_(withReply(selectors::kSetExclusions,
                  {orNil(exclusions), Number::ofUnsignedLongLong(timestamp)}),
        std::move(reply));
}

void RemoteSysextProxy::setPrinter(const std::string* printer, bool verdict) {
  send_(oneWay(selectors::kSetPrinter, {orNil(printer), Number::ofBool(verdict)}), nullptr);
}

}  // namespace tarvex::itx::xpc::linux_platform
