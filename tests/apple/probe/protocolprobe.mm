// Adopts both link protocols so that their method lists, with the type
// encodings the connection checks calls against, land in the object file
// where scripts/apple-check.sh reads them.
#import "xpc/protocols.h"

#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wprotocol"
@interface LumoProtocolProbe : NSObject <SysextXPCInterface, ProtectionDaemonXPCInterface>
@end

@implementation LumoProtocolProbe
@end
#pragma clang diagnostic pop
