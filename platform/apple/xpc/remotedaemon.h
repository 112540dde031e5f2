#pragma once

#import <Foundation/Foundation.h>

#include <memory>

#import "xpc/protocols.h"
#include "xpc/xpcconnection.h"

NS_ASSUME_NONNULL_BEGIN

namespace tarvex::itx::xpc::apple_platform {

// The daemon's object (a connection's remote proxy) behind the core's
// interface: event dictionaries become NSDictionary with their numbers'
// exact kinds; the registration reply comes back through the ReplyBlock.
std::shared_ptr<ProtectionDaemonXPCInterface> makeRemoteDaemon(
    id<ProtectionDaemonXPCInterface> daemon);

}  // namespace tarvex::itx::xpc::apple_platform

NS_ASSUME_NONNULL_END
