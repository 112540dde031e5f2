#pragma once

#include "xpc/linkframe.h"
#include "xpc/xpcconnection.h"

namespace tarvex::itx::xpc::linux_platform {

// Calls the method a call names on the exported object, with `reply` as the
// block of a method that takes one. The call must have passed checkCall for
// the object's protocol; one that did not is ignored.
void dispatchCall(const CallFrame& call, SysextXPCInterface& target, const ReplyBlock& reply);
void dispatchCall(const CallFrame& call, ProtectionDaemonXPCInterface& target,
                  const ReplyBlock& reply);

}  // namespace tarvex::itx::xpc::linux_platform
