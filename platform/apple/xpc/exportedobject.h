#pragma once

#import <Foundation/Foundation.h>

#import "xpc/protocols.h"
#include "xpc/xpcconnection.h"

NS_ASSUME_NONNULL_BEGIN

// The object a connection exports to the daemon: each call, its arguments
// turned into the link's values (nil into a null pointer), goes on to the
// core's SysextXPCInterface, and reply blocks come back as ReplyBlocks.
@interface LumoSysextXPCExport : NSObject <SysextXPCInterface>
// target outlives the connection (it is the link's process-wide object).
- (instancetype)initWithTarget:(tarvex::itx::xpc::SysextXPCInterface*)target
    NS_DESIGNATED_INITIALIZER;
- (instancetype)init NS_UNAVAILABLE;
@end

NS_ASSUME_NONNULL_END
