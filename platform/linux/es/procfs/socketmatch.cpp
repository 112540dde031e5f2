#include "es/procfs/socketmatch.h"

#include <sys/stat.h>

namespace endpointsecurity::linux_es {

std::string matchKnownSocket(pid_t pid, const std::string& path, const std::string& known,
                             const std::string& procRoot) {
  // Abstract names and the common spelling need no lookup.
  if (path.empty() || path[0] == '@' || path == known) return path;
  const std::string proc = procRoot + "/" + std::to_string(pid);
  const std::string asSeen = path[0] == '/' ? proc + "/root" + path : proc + "/cwd/" + path;
  struct stat reached{}, socket{};
  if (::stat(asSeen.c_str(), &reached) != 0 || !S_ISSOCK(reached.st_mode) ||
      ::stat(known.c_str(), &socket) != 0) {
    return path;
  }
  return reached.st_dev == socket.st_dev && reached.st_ino == socket.st_ino ? known : path;
}

}  // namespace endpointsecurity::linux_es
