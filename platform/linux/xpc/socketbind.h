#pragma once

#include <sys/types.h>

#include <string>

namespace tarvex::itx::xpc::linux_platform {

// A listening seqpacket socket bound at `path`: the directory is created
// (0755) when missing, a stale socket left by a dead listener is replaced,
// and the socket is opened to every user (0666): the peer-credential check
// decides who may talk. -1, with `error` saying why, when another listener
// is live there, the path holds something other than a socket, or a step
// fails. `inode` identifies the bound file, to remove only our own later.
int bindListeningSocket(const std::string& path, ino_t* inode, std::string* error);

}  // namespace tarvex::itx::xpc::linux_platform
