#include "es/procfs/mounts.h"

#include <fcntl.h>
#include <unistd.h>

#include <set>
#include <sstream>

namespace endpointsecurity::linux_es {

namespace {

// Mount points escape blanks, tabs, newlines and backslashes as \ooo.
std::string unescape(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 3 < text.size() &&
        text[i + 1] >= '0' && text[i + 1] <= '3' && text[i + 2] >= '0' && text[i + 2] <= '7' &&
        text[i + 3] >= '0' && text[i + 3] <= '7') {
      out += static_cast<char>((text[i + 1] - '0') * 64 + (text[i + 2] - '0') * 8 +
                               (text[i + 3] - '0'));
      i += 3;
    } else {
      out += text[i];
    }
  }
  return out;
}

}  // namespace

std::vector<MountEntry> parseMountInfo(const std::string& text) {
  std::vector<MountEntry> mounts;
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line)) {
    std::istringstream words(line);
    std::vector<std::string> fields;
    std::string word;
    while (words >> word) fields.push_back(word);
    // id parent dev root mountpoint options [optional...] - fstype source super
    size_t dash = 0;
    for (size_t i = 6; i < fields.size(); ++i) {
      if (fields[i] == "-") {
        dash = i;
        break;
      }
    }
    if (dash == 0 || dash + 1 >= fields.size() || fields[4].empty() || fields[4][0] != '/') {
      continue;
    }
    mounts.push_back({unescape(fields[4]), fields[dash + 1]});
  }
  return mounts;
}

bool watchableFsType(const std::string& fsType) {
  static const std::set<std::string> pseudo = {
      "proc",     "sysfs",     "cgroup",  "cgroup2",     "devpts",     "mqueue",
      "debugfs",  "tracefs",   "securityfs", "pstore",   "bpf",        "configfs",
      "fusectl",  "hugetlbfs", "autofs",  "binfmt_misc", "rpc_pipefs", "nsfs",
      "efivarfs", "devtmpfs",  "selinuxfs", "ramfs",     "squashfs",   "nfsd"};
  return pseudo.count(fsType) == 0;
}

std::string readMountTable(int fd) {
  const bool own = fd < 0;
  if (own) fd = open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC);
  if (fd < 0) return {};
  std::string table;
  char chunk[8192];
  lseek(fd, 0, SEEK_SET);
  for (ssize_t n; (n = read(fd, chunk, sizeof chunk)) > 0;) table.append(chunk, static_cast<size_t>(n));
  if (own) close(fd);
  return table;
}

}  // namespace endpointsecurity::linux_es
