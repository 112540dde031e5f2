#pragma once

#import <Foundation/Foundation.h>

#include <memory>

#include "xpc/xpcconnection.h"

NS_ASSUME_NONNULL_BEGIN

namespace tarvex::itx::xpc::apple_platform {

// A configured-but-not-resumed NSXPCConnection as the core's connection:
// it exports SysextXPCInterface, talks to ProtectionDaemonXPCInterface and
// runs the handlers on its private queue. Dropping the last reference does
// not invalidate it.
std::shared_ptr<IXPCConnection> wrapConnection(NSXPCConnection* connection);

}  // namespace tarvex::itx::xpc::apple_platform

NS_ASSUME_NONNULL_END
