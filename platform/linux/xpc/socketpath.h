#pragma once

#include <string>

namespace tarvex::itx::xpc::linux_platform {

// A service's socket is <runtime dir>/<service name>.sock, so the daemon's
// "com.tarvex.lumo.protectiond.xpc" listens on
// /run/tarvex/com.tarvex.lumo.protectiond.xpc.sock. The runtime dir is the
// first of: the runtimeDir argument when not empty, $LUMO_RUNTIME_DIR when
// set and not empty (tests, unprivileged trials), /run/tarvex.
inline constexpr const char* kDefaultRuntimeDir = "/run/tarvex";
inline constexpr const char* kRuntimeDirVariable = "LUMO_RUNTIME_DIR";

std::string resolveRuntimeDir(const std::string& runtimeDir);

// The socket path of a service under a resolved runtime dir. Empty, with
// `error` saying why, when the name cannot name a file in that dir or the
// path does not fit a socket address.
std::string socketPathFor(const std::string& serviceName, const std::string& runtimeDir,
                          std::string* error);

}  // namespace tarvex::itx::xpc::linux_platform
