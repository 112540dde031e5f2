#pragma once

#include <string>
#include <vector>

namespace endpointsecurity::linux_es {

struct MountEntry {
  std::string path;
  std::string fsType;
};

// The mounts of /proc/self/mountinfo text, mount points unescaped; lines
// that don't parse are skipped.
std::vector<MountEntry> parseMountInfo(const std::string& text);

// The whole mount table read from an open /proc/self/mountinfo (reading it
// to its end re-arms its change notification), or opened here when fd < 0.
std::string readMountTable(int fd = -1);

// Whether files on this file system type are worth marking: kernel
// pseudo file systems are not.
bool watchableFsType(const std::string& fsType);

}  // namespace endpointsecurity::linux_es
