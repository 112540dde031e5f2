#include "refdaemon/mountscan.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace lumo::refdaemon {

namespace {

constexpr std::array<std::string_view, 9> kNetworkTypes{
    "nfs", "nfs4", "cifs", "smb3", "sshfs", "fuse.sshfs", "9p", "ceph", "glusterfs"};

std::vector<std::string_view> fields(std::string_view line) {
  std::vector<std::string_view> out;
  size_t at = 0;
  while (at < line.size()) {
    const size_t end = std::min(line.find(' ', at), line.size());
    if (end > at) out.push_back(line.substr(at, end - at));
    at = end + 1;
  }
  return out;
}

// Undoes the kernel's octal escapes of space, tab, newline and backslash.
std::string unescaped(std::string_view field) {
  std::string out;
  for (size_t i = 0; i < field.size(); ++i) {
    if (field[i] == '\\' && i + 3 < field.size()) {
      const std::string_view d = field.substr(i + 1, 3);
      if (d.find_first_not_of("01234567") == std::string_view::npos) {
        out += static_cast<char>((d[0] - '0') * 64 + (d[1] - '0') * 8 + (d[2] - '0'));
        i += 3;
        continue;
      }
    }
    out += field[i];
  }
  return out;
}

bool isNetwork(std::string_view fsType) {
  for (std::string_view t : kNetworkTypes) {
    if (fsType == t) return true;
  }
  return false;
}

}  // namespace

std::vector<Mount> classifyMounts(std::string_view mountinfo, const RemovableLookup& removable) {
  std::vector<Mount> mounts;
  while (!mountinfo.empty()) {
    const size_t nl = mountinfo.find('\n');
    const std::string_view line = mountinfo.substr(0, nl);
    mountinfo = nl == std::string_view::npos ? std::string_view() : mountinfo.substr(nl + 1);
    // id parent major:minor root mountpoint options [optional...] - fstype source super
    const std::vector<std::string_view> f = fields(line);
    size_t dash = 6;
    while (dash < f.size() && f[dash] != "-") ++dash;
    if (f.size() < 6 || dash + 1 >= f.size()) continue;
    const std::string_view fsType = f[dash + 1];
    unsigned major = 0;
    unsigned minor = 0;
    if (std::sscanf(std::string(f[2]).c_str(), "%u:%u", &major, &minor) != 2) continue;
    Mount mount{unescaped(f[4]), MountKind::Regular};
    if (isNetwork(fsType)) {
      mount.kind = MountKind::Network;
    } else if (major == 0) {
      continue;  // no block device: proc, tmpfs, overlay and the like
    } else if (removable(major, minor).value_or(false)) {
      mount.kind = MountKind::Removable;
    }
    mounts.push_back(std::move(mount));
  }
  return mounts;
}

std::optional<bool> sysfsRemovable(unsigned major, unsigned minor) {
  namespace fs = std::filesystem;
  std::error_code ec;
  fs::path device = fs::canonical(
      "/sys/dev/block/" + std::to_string(major) + ":" + std::to_string(minor), ec);
  if (ec) return std::nullopt;
  if (fs::exists(device / "partition", ec)) device = device.parent_path();
  std::ifstream flag(device / "removable");
  int value = 0;
  if (!(flag >> value)) return std::nullopt;
  return value != 0;
}

std::vector<Mount> scanMounts(std::string* error) {
  std::ifstream in("/proc/self/mountinfo");
  if (!in) {
    *error = "cannot read /proc/self/mountinfo";
    return {};
  }
  std::stringstream text;
  text << in.rdbuf();
  return classifyMounts(text.str(), sysfsRemovable);
}

}  // namespace lumo::refdaemon
