#import "xpc/exportedobject.h"

#include <optional>
#include <string>

#import "xpc/valuebridge.h"

using tarvex::itx::xpc::ReplyBlock;
using tarvex::itx::xpc::SysextXPCInterface;
using tarvex::itx::xpc::Value;
using tarvex::itx::xpc::apple_platform::fromNSString;
using tarvex::itx::xpc::apple_platform::fromObjC;

namespace {

ReplyBlock replyFor(void (^_Nullable reply)(BOOL)) {
  if (reply == nil) return nullptr;
  return [reply](bool accepted) { reply(accepted ? YES : NO); };
}

const std::string* orNull(const std::optional<std::string>& text) {
  return text ? &*text : nullptr;
}

}  // namespace

@implementation LumoSysextXPCExport {
  SysextXPCInterface* _target;
}

- (instancetype)initWithTarget:(SysextXPCInterface*)target {
  if ((self = [super init])) _target = target;
  return self;
}

- (void)addMountPoint:(NSString*)volume mountType:(NSUInteger)mountType {
  const std::optional<std::string> path = fromNSString(volume);
  _target->addMountPoint(orNull(path), mountType);
}

- (void)removeMountPoint:(NSString*)volume {
  const std::optional<std::string> path = fromNSString(volume);
  _target->removeMountPoint(orNull(path));
}

- (void)clearMountPoints {
  _target->clearMountPoints();
}

- (void)setPolicy:(NSDictionary*)policy
           withTimestamp:(uint64_t)timestamp
    andCompletionHandler:(void (^)(BOOL))reply {
  // Anything but a dictionary counts as a missing policy.
  const Value value = fromObjC(policy);
  _target->setPolicy(value.dictionary(), timestamp, replyFor(reply));
}

- (void)setExclusions:(NSArray*)exclusions
           withTimestamp:(uint64_t)timestamp
    andCompletionHandler:(void (^)(BOOL))reply {
  const Value value = fromObjC(exclusions);
  _target->setExclusions(value.array(), timestamp, replyFor(reply));
}

- (void)setPrinter:(NSString*)printer verdict:(BOOL)verdict {
  const std::optional<std::string> job = fromNSString(printer);
  _target->setPrinter(orNull(job), verdict);
}

@end
