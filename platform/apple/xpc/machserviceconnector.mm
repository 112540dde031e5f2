#include "xpc/machserviceconnector.h"

#import <Foundation/Foundation.h>

#import "xpc/foundationconnection.h"

namespace tarvex::itx::xpc::apple_platform {

static_assert(IXPCConnector::kPrivileged == NSXPCConnectionPrivileged);

std::shared_ptr<IXPCConnection> MachServiceConnector::connect(const std::string& serviceName,
                                                              uint64_t options) {
  @autoreleasepool {
    NSString* name = [[NSString alloc] initWithBytes:serviceName.data()
                                              length:serviceName.size()
                                            encoding:NSUTF8StringEncoding];
    if (name == nil) return nullptr;
    const auto connectionOptions = static_cast<NSXPCConnectionOptions>(options);
    NSXPCConnection* connection =
        [[NSXPCConnection alloc] initWithMachServiceName:name options:connectionOptions];
    if (connection == nil) return nullptr;
    return wrapConnection(connection);
  }
}

}  // namespace tarvex::itx::xpc::apple_platform
