#pragma once

#include <sys/types.h>

#include <string>

namespace endpointsecurity::linux_es {

// The socket path to report for a connect by `pid` to `path`: `known` (the
// printing system's socket) when `path` reaches that very socket, by device
// and inode, whatever its spelling: a symlink on the way, a relative path,
// another mount of the directory. Otherwise `path` as given. The path is
// resolved as the caller sees it, from its root or working directory.
std::string matchKnownSocket(pid_t pid, const std::string& path, const std::string& known,
                             const std::string& procRoot = "/proc");

}  // namespace endpointsecurity::linux_es
