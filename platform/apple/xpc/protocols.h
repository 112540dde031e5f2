#pragma once

// The two sides of the daemon link as the connection's interfaces see them.
// Selectors and argument types are the daemon contract: the connection
// checks each call against these declarations by their type encodings.

#import <Foundation/Foundation.h>

#include <stdint.h>

NS_ASSUME_NONNULL_BEGIN

// Exported by the extension; the daemon calls it. Object arguments may
// arrive as nil.
@protocol SysextXPCInterface
- (void)addMountPoint:(nullable NSString*)volume mountType:(NSUInteger)mountType;
- (void)removeMountPoint:(nullable NSString*)volume;
- (void)clearMountPoints;
- (void)setPolicy:(nullable NSDictionary*)policy
           withTimestamp:(uint64_t)timestamp
    andCompletionHandler:(void (^)(BOOL))reply;
- (void)setExclusions:(nullable NSArray*)exclusions
           withTimestamp:(uint64_t)timestamp
    andCompletionHandler:(void (^)(BOOL))reply;
- (void)setPrinter:(nullable NSString*)printer verdict:(BOOL)verdict;
@end

// Implemented by the daemon; the extension calls it. The last two belong to
// the network side of the product and are declared, never called, here.
@protocol ProtectionDaemonXPCInterface
- (void)registerWithCompletionHandler:(void (^)(BOOL))reply;
- (void)handleFileEvent:(NSDictionary*)event;
- (void)handlePrinterEvent:(NSDictionary*)event;
- (void)handleProcessStartEvent:(NSDictionary*)event;
- (void)handleProcessExitEvent:(NSDictionary*)event;
- (void)startNetworkExtensionTunnelWithCompletionHandler:(void (^)(BOOL))reply;
- (void)activateNetworkExtensionWithCompletionHandler:(void (^)(BOOL))reply;
@end

NS_ASSUME_NONNULL_END
