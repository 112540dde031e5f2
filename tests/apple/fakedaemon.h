#pragma once

#import <Foundation/Foundation.h>

#import "xpc/protocols.h"

NS_ASSUME_NONNULL_BEGIN

// The daemon's object: records the selector and dictionary of every call
// and answers registration with `answer`.
@interface LumoFakeDaemon : NSObject <ProtectionDaemonXPCInterface>
@property(atomic) BOOL answer;
- (NSArray<NSString*>*)selectors;
- (NSArray<NSDictionary*>*)events;
@end

NS_ASSUME_NONNULL_END
