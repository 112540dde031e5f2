// The exported object must answer every selector of its protocol by name.
// expect: method 'setPrinter:verdict:' in protocol 'SysextXPCInterface' not implemented
#import "xpc/protocols.h"

@interface LumoMisuseExport : NSObject <SysextXPCInterface>
@end

@implementation LumoMisuseExport
- (void)addMountPoint:(NSString*)volume mountType:(NSUInteger)mountType {
  (void)volume;
  (void)mountType;
}
- (void)removeMountPoint:(NSString*)volume {
  (void)volume;
}
- (void)clearMountPoints {
}
- (void)setPolicy:(NSDictionary*)policy
           withTimestamp:(uint64_t)timestamp
    andCompletionHandler:(void (^)(BOOL))reply {
  (void)policy;
  (void)timestamp;
  reply(YES);
}
- (void)setExclusions:(NSArray*)exclusions
           withTimestamp:(uint64_t)timestamp
    andCompletionHandler:(void (^)(BOOL))reply {
  (void)exclusions;
  (void)timestamp;
  reply(YES);
}
#if LUMO_MISUSE
- (void)setPrinter:(NSString*)printer withVerdict:(BOOL)verdict {
#else
- (void)setPrinter:(NSString*)printer verdict:(BOOL)verdict {
#endif
  (void)printer;
  (void)verdict;
}
@end
