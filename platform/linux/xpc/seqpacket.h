#pragma once

#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>

#include <string>

namespace tarvex::itx::xpc::linux_platform {

// Who is at the other end of a connected socket, as the kernel saw it when
// the connection was made.
struct PeerCredentials {
  pid_t pid = 0;
  uid_t uid = 0;
  gid_t gid = 0;
};

// A nonblocking, close-on-exec AF_UNIX SOCK_SEQPACKET socket (one message is
// one frame) with buffers sized for frames up to kMaxFrameBytes; -1 with
// errno set on failure.
int openSeqpacketSocket();

// Gives an accepted socket the same buffers.
void sizeFrameBuffers(int fd);

sockaddr_un socketAddress(const std::string& path);

// The kernel's credentials of the peer; false with errno set on failure.
bool readPeerCredentials(int fd, PeerCredentials* out);

// Text of an errno value; thread-safe.
std::string errnoText(int err);

}  // namespace tarvex::itx::xpc::linux_platform
