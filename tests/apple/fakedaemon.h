#pragma once

#import <Foundation/Foundation.h>

#import "xpc/protocols.h"

NS_ASSUME_NONNULL_BEGIN

// The daemon's object: records the selector and dictionary of every call,
// answers registration with `answer`, and counts calls on a semaphore.
@interface LumoFakeDaemon : NSObject <ProtectionDaemonXPCInterface>
@property(atomic) BOOL answer;
- (NSArray<NSString*>*)selectors;
- (NSArray<NSDictionary*>*)events;
// Waits up to `seconds` for one more call.
- (BOOL)waitForCall:(int64_t)seconds;
@end

NS_ASSUME_NONNULL_END
