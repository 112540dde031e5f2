#include "xpc/socketpath.h"

#include <sys/un.h>

#include <cstdlib>

namespace tarvex::itx::xpc::linux_platform {

std::string resolveRuntimeDir(const std::string& runtimeDir) {
  if (!runtimeDir.empty()) return runtimeDir;
  const char* fromEnv = std::getenv(kRuntimeDirVariable);
  if (fromEnv != nullptr && *fromEnv != '\0') return fromEnv;
  return kDefaultRuntimeDir;
}

std::string socketPathFor(const std::string& serviceName, const std::string& runtimeDir,
                          std::string* error) {
  if (serviceName.empty() || serviceName == "." || serviceName == ".." ||
      serviceName.find_first_of(std::string("/\0", 2)) != std::string::npos) {
    *error = "service name \"" + serviceName + "\" cannot name a socket file";
    return {};
  }
  std::string path = runtimeDir;
  if (path.empty() || path.back() != '/') path.push_back('/');
  path += serviceName;
  path += ".sock";
  if (path.size() >= sizeof(sockaddr_un{}.sun_path)) {
    *error = "socket path " + path + " is longer than a socket address holds";
    return {};
  }
  return path;
}

}  // namespace tarvex::itx::xpc::linux_platform
