#include "watchdog/stallrelease.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/fanotify.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace tarvex::itx::rtn::linux_platform {

namespace {

// Allows every pending event answered by this number; how many there were.
uint64_t allowAll(int group, int number) {
  uint64_t allowed = 0;
  const fanotify_response response{number, FAN_ALLOW};
  // Bounded: two readers' numbers may coincide, never a thousand.
  while (allowed < 1024 && write(group, &response, sizeof response) == sizeof response) ++allowed;
  return allowed;
}

// Reads and allows what is queued now.
void drainQueue(int group, ReleaseCounts& counts) {
  alignas(fanotify_event_metadata) char buffer[16 * 1024];
  pollfd ready{group, POLLIN, 0};
  while (poll(&ready, 1, 0) > 0 && (ready.revents & POLLIN)) {
    const ssize_t n = read(group, buffer, sizeof buffer);
    if (n <= 0) break;
    auto* event = reinterpret_cast<const fanotify_event_metadata*>(buffer);
    ssize_t left = n;
    for (; FAN_EVENT_OK(event, left); event = FAN_EVENT_NEXT(event, left)) {
      if (event->fd < 0) continue;
      // The number may also be one the owner holds: answered until gone.
      const uint64_t allowed = allowAll(group, event->fd);
      if (allowed > 0) {
        ++counts.unseen;
        counts.pending += allowed - 1;
      }
      close(event->fd);
    }
  }
}

}  // namespace

ReleaseCounts releasePermissionGroup(int group, pid_t owner) {
  ReleaseCounts counts;
  // Filesystem marks, then the inode ones (an ignore mark asks nothing).
  fanotify_mark(group, FAN_MARK_FLUSH | FAN_MARK_FILESYSTEM, 0, AT_FDCWD, nullptr);
  fanotify_mark(group, FAN_MARK_FLUSH, 0, AT_FDCWD, nullptr);
  drainQueue(group, counts);
  const std::string fds = "/proc/" + std::to_string(owner) + "/fd";
  if (DIR* dir = opendir(fds.c_str())) {
    while (const dirent* entry = readdir(dir)) {
      if (entry->d_name[0] < '0' || entry->d_name[0] > '9') continue;
      counts.pending += allowAll(group, std::atoi(entry->d_name));
    }
    closedir(dir);
  }
  // An event raised while the marks went is queued a moment later.
  usleep(20'000);
  drainQueue(group, counts);
  return counts;
}

}  // namespace tarvex::itx::rtn::linux_platform
