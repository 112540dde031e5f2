#include "xpc/peercheck.h"

#include <errno.h>

#include "log/log.h"

LUMO_LOG_MODULE("MAC_ES_SERVICE_XPC")

namespace tarvex::itx::xpc::linux_platform {

bool admitPeer(int fd, bool privileged, const std::string& serviceName, PeerCredentials* peer) {
  if (!readPeerCredentials(fd, peer)) {
    const std::string why = errnoText(errno);
    LOG_ERROR("Refusing a peer of %{public}s: cannot read its credentials: %{public}s\n",
              serviceName.c_str(), why.c_str());
    return false;
  }
  if (privileged && peer->uid != 0) {
    LOG_ERROR("Refusing peer pid %d uid %u of %{public}s: the link is privileged and the peer "
              "is not root\n",
              static_cast<int>(peer->pid), static_cast<unsigned>(peer->uid),
              serviceName.c_str());
    return false;
  }
  return true;
}

}  // namespace tarvex::itx::xpc::linux_platform
