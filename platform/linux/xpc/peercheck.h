#pragma once

#include <string>

#include "xpc/seqpacket.h"

namespace tarvex::itx::xpc::linux_platform {

// Reads the peer's credentials into `peer` and decides whether it may talk
// to us: any peer, or for a privileged link only root. A refusal (or
// credentials that can't be read) gets an Error line naming the service and
// the peer's pid and uid.
bool admitPeer(int fd, bool privileged, const std::string& serviceName, PeerCredentials* peer);

}  // namespace tarvex::itx::xpc::linux_platform
