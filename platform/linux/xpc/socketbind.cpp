#include "xpc/socketbind.h"

#include <errno.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "xpc/seqpacket.h"

namespace tarvex::itx::xpc::linux_platform {

namespace {

constexpr mode_t kDirMode = 0755;
constexpr mode_t kSocketMode = 0666;

bool makeDirs(const std::string& dir, std::string* error) {
  for (size_t at = 1; at <= dir.size(); ++at) {
    if (at != dir.size() && dir[at] != '/') continue;
    const std::string part = dir.substr(0, at);
    if (mkdir(part.c_str(), kDirMode) == 0) {
      chmod(part.c_str(), kDirMode);  // past the umask: unprivileged peers must reach the socket
    } else if (errno != EEXIST) {
      *error = "cannot create " + part + ": " + errnoText(errno);
      return false;
    }
  }
  return true;
}

// True when nothing is in the way of binding at `path` (a stale socket is
// removed); false with `error` otherwise.
bool clearStale(const std::string& path, std::string* error) {
  struct stat st {};
  if (lstat(path.c_str(), &st) != 0) {
    if (errno == ENOENT) return true;
    *error = "cannot inspect " + path + ": " + errnoText(errno);
    return false;
  }
  if (!S_ISSOCK(st.st_mode)) {
    *error = path + " exists and is not a socket";
    return false;
  }
  const int probe = openSeqpacketSocket();
  if (probe < 0) {
    *error = "cannot create a socket: " + errnoText(errno);
    return false;
  }
  const sockaddr_un address = socketAddress(path);
  // Refused: nobody listens. A full backlog (EAGAIN) is a live listener too.
  const bool live =
      ::connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ||
      errno != ECONNREFUSED;
  close(probe);
  if (live) {
    *error = "another listener is live at " + path;
    return false;
  }
  if (unlink(path.c_str()) != 0 && errno != ENOENT) {
    *error = "cannot remove the stale socket " + path + ": " + errnoText(errno);
    return false;
  }
  return true;
}

}  // namespace

int bindListeningSocket(const std::string& path, ino_t* inode, std::string* error) {
  const size_t slash = path.rfind('/');
  if (slash != std::string::npos && slash > 0 && !makeDirs(path.substr(0, slash), error)) {
    return -1;
  }
  if (!clearStale(path, error)) return -1;
  const int fd = openSeqpacketSocket();
  if (fd < 0) {
    *error = "cannot create a socket: " + errnoText(errno);
    return -1;
  }
  const sockaddr_un address = socketAddress(path);
  if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    *error = "cannot bind " + path + ": " + errnoText(errno);
    close(fd);
    return -1;
  }
  struct stat st {};
  if (chmod(path.c_str(), kSocketMode) != 0 || stat(path.c_str(), &st) != 0) {
    *error = "cannot open " + path + " to peers: " + errnoText(errno);
  } else if (listen(fd, SOMAXCONN) != 0) {
    *error = "cannot listen on " + path + ": " + errnoText(errno);
  } else {
    *inode = st.st_ino;
    return fd;
  }
  close(fd);
  unlink(path.c_str());
  return -1;
}

}  // namespace tarvex::itx::xpc::linux_platform
