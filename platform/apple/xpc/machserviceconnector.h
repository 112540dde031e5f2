#pragma once

#include <memory>
#include <string>

#include "xpc/xpcconnection.h"

namespace tarvex::itx::xpc::apple_platform {

// Opens connections (xpc/foundationconnection.h) to launchd services by
// Mach service name. The options are NSXPCConnectionOptions: kPrivileged
// looks the name up in the system domain, where the daemon runs as root.
class MachServiceConnector final : public IXPCConnector {
 public:
  std::shared_ptr<IXPCConnection> connect(const std::string& serviceName,
                                          uint64_t options) override;
};

}  // namespace tarvex::itx::xpc::apple_platform
