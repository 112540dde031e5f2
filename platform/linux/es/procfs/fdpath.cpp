#include "es/procfs/fdpath.h"

#include <fcntl.h>
#include <limits.h>
#include <unistd.h>

#include <charconv>
#include <string_view>

namespace endpointsecurity::linux_es {

std::string pathOfFd(int fd) {
  // Opened once: a lookup relative to it skips walking "/proc/self/fd"
  // for every event.
  static const int links = open("/proc/self/fd", O_PATH | O_DIRECTORY | O_CLOEXEC);
  char name[16];
  const auto end = std::to_chars(name, name + sizeof name - 1, fd).ptr;
  *end = '\0';
  char buf[PATH_MAX];
  const ssize_t n = links >= 0 ? readlinkat(links, name, buf, sizeof buf)
                               : readlink(("/proc/self/fd/" + std::string(name)).c_str(), buf,
                                          sizeof buf);
  return n > 0 ? std::string(buf, static_cast<size_t>(n)) : std::string();
}

bool stripDeletedTail(std::string& path) {
  constexpr std::string_view kDeleted = " (deleted)";
  if (path.size() <= kDeleted.size() || !path.ends_with(kDeleted)) return false;
  path.resize(path.size() - kDeleted.size());
  return true;
}

}  // namespace endpointsecurity::linux_es
