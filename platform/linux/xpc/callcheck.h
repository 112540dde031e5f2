#pragma once

#include <string>

#include "xpc/linkframe.h"

namespace tarvex::itx::xpc::linux_platform {

// The protocol an end exports: the calls it accepts from its peer.
enum class Protocol : uint8_t {
  Sysext,            // the extension's SysextXPCInterface
  ProtectionDaemon,  // the daemon's ProtectionDaemonXPCInterface
};

const char* protocolName(Protocol protocol);

// Empty when the call names a method of the protocol with arguments of the
// kinds it takes, else what is wrong: unknown selector, argument count or
// kind, a reply id missing or present against the method's reply block.
// Object arguments may be nil where the exporting interface takes a pointer.
std::string checkCall(Protocol protocol, const CallFrame& call);

}  // namespace tarvex::itx::xpc::linux_platform
