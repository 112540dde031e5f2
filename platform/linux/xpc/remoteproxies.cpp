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

// A record as the only argument, copied once: a braced list would copy it
// into the list and again out of it.
std::vector<Value> record(const Dictionary& event) {
  std::vector<Value> args;
  args.emplace_back(event);
  return args;
}

template <typename T>
Value orNil(const T* object) {
  return object ? Value(*object) : Value();
}

}  // namespace

void RemoteDaemonProxy::registerWithCompletionHandler(ReplyBlock reply) {
  send_(withReply(selectors::kRegister, {}), std::move(reply));
}

void RemoteDaemonProxy::handleFileEvent(const Dictionary& event) {
  send_(oneWay(selectors::kHandleFileEvent, record(event)), nullptr);
}

void RemoteDaemonProxy::handlePrinterEvent(const Dictionary& event) {
  send_(oneWay(selectors::kHandlePrinterEvent, record(event)), nullptr);
}

void RemoteDaemonProxy::handleProcessStartEvent(const Dictionary& event) {
  send_(oneWay(selectors::kHandleProcessStartEvent, record(event)), nullptr);
}

void RemoteDaemonProxy::handleProcessExitEvent(const Dictionary& event) {
  send_(oneWay(selectors::kHandleProcessExitEvent, record(event)), nullptr);
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
