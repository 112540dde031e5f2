#include "xpc/seqpacket.h"

#include <string.h>

#include <system_error>

#include "xpc/linkframe.h"

namespace tarvex::itx::xpc::linux_platform {

namespace {

// One full frame plus the kernel's per-message overhead must fit the send
// buffer. The forced variants pass net.core.[rw]mem_max when we may; without
// privilege the plain ones are capped there, and a frame that does not fit
// is refused by send with EMSGSIZE.
constexpr int kBufferBytes = static_cast<int>(kMaxFrameBytes + 64 * 1024);

void setBuffer(int fd, int forced, int plain) {
  if (setsockopt(fd, SOL_SOCKET, forced, &kBufferBytes, sizeof kBufferBytes) != 0) {
    setsockopt(fd, SOL_SOCKET, plain, &kBufferBytes, sizeof kBufferBytes);
  }
}

}  // namespace

int openSeqpacketSocket() {
  const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd >= 0) sizeFrameBuffers(fd);
  return fd;
}

void sizeFrameBuffers(int fd) {
  setBuffer(fd, SO_SNDBUFFORCE, SO_SNDBUF);
  setBuffer(fd, SO_RCVBUFFORCE, SO_RCVBUF);
}

sockaddr_un socketAddress(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  return address;
}

bool readPeerCredentials(int fd, PeerCredentials* out) {
  ucred cred{};
  socklen_t size = sizeof cred;
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &size) != 0) return false;
  *out = {cred.pid, cred.uid, cred.gid};
  return true;
}

std::string errnoText(int err) { return std::system_category().message(err); }

}  // namespace tarvex::itx::xpc::linux_platform
