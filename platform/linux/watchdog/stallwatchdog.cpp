#include "watchdog/stallwatchdog.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "log/log.h"
#include "watchdog/heartbeat.h"
#include "watchdog/stallrelease.h"

LUMO_LOG_MODULE("LINUX_ES")

namespace tarvex::itx::rtn::linux_platform {

namespace {

pid_t gWatchdog = -1;

constexpr long kCheckNanos = 100'000'000;

void restoreSignals() {
  for (int sig = 1; sig < NSIG; ++sig) signal(sig, SIG_DFL);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}

bool isFanotifyGroup(int fd) {
  char target[64] = {};
  const std::string link = "/proc/self/fd/" + std::to_string(fd);
  return readlink(link.c_str(), target, sizeof target - 1) > 0 &&
         std::strcmp(target, "anon_inode:[fanotify]") == 0;
}

class Watch {
 public:
  explicit Watch(pid_t extension)
      : extension_(extension),
        pidfd_(static_cast<int>(syscall(SYS_pidfd_open, extension, 0))),
        page_(heartbeat()) {}

  // One look at the page.
  void check() {
    const uint64_t now = monotonicNanos();
    const uint64_t beats = page_.readerBeats.load();
    const uint64_t generation = page_.groupGeneration.load();
    if (beats != lastBeats_ || generation != lastGeneration_ || lastBeatAt_ == 0) {
      lastBeats_ = beats;
      lastGeneration_ = generation;
      lastBeatAt_ = now;
    }
    const int group = page_.groupFd.load();
    const uint64_t due = page_.timerDue.load();
    const bool readerStuck = group >= 0 && now - lastBeatAt_ > kReaderSilentNanos;
    const bool timerStuck = due != 0 && now > due + kTimerLateNanos;
    if (released_) {
      if (!readerStuck && !timerStuck) {
        page_.recoveredAt.store(now);
        page_.recoveries.fetch_add(1);
        released_ = false;
        LOG_INFO("Stall watchdog: the extension's permission path runs again.");
      }
      return;
    }
    if (group < 0 || !(readerStuck || timerStuck)) return;
    const uint64_t since = readerStuck ? lastBeatAt_ : due;
    release(group, generation, readerStuck ? "the permission reader is silent"
                                           : "the AUTH deadline timer is overdue",
            since, now);
  }

 private:
  void release(int group, uint64_t generation, const char* why, uint64_t since, uint64_t now) {
    released_ = true;
    const int copy = pidfd_ < 0 ? -1 : static_cast<int>(syscall(SYS_pidfd_getfd, pidfd_, group, 0));
    if (copy < 0 || !isFanotifyGroup(copy) || page_.groupGeneration.load() != generation) {
      if (copy >= 0) close(copy);
      if (page_.groupGeneration.load() != generation) {
        released_ = false;  // another group since: look again
        return;
      }
      LOG_ERROR("Stall watchdog: %{public}s for %.1f s and the permission group can't be taken "
                "(%{public}s); ending the extension to release it.",
                why, (now - since) / 1e9, strerror(errno));
      kill(extension_, SIGKILL);
      return;
    }
    const ReleaseCounts counts = releasePermissionGroup(copy, extension_);
    close(copy);
    page_.stalledSince.store(since);
    page_.allowedUnseen.fetch_add(counts.unseen);
    page_.allowedPending.fetch_add(counts.pending);
    page_.releases.fetch_add(1);
    LOG_ERROR("Stall watchdog: %{public}s for %.1f s; %llu queued and %llu pending permission "
              "events allowed. The machine runs without permission checks until the extension "
              "recovers.",
              why, (now - since) / 1e9, static_cast<unsigned long long>(counts.unseen),
              static_cast<unsigned long long>(counts.pending));
  }

  const pid_t extension_;
  const int pidfd_;
  HeartbeatPage& page_;
  uint64_t lastBeats_ = 0;
  uint64_t lastGeneration_ = 0;
  uint64_t lastBeatAt_ = 0;
  bool released_ = false;
};

[[noreturn]] void watch(pid_t extension) {
  prctl(PR_SET_NAME, "lumo-es-watch");
  // Holds no group between releases; it goes with the extension.
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != extension) _exit(0);
  restoreSignals();
  // It must run when the machine is busiest (raising needs root).
  setpriority(PRIO_PROCESS, 0, -10);
  Watch watch(extension);
  const timespec pause{0, kCheckNanos};
  for (;;) {
    nanosleep(&pause, nullptr);
    if (getppid() != extension) _exit(0);
    watch.check();
  }
}

}  // namespace

pid_t startStallWatchdog() {
  heartbeat();  // mapped before the fork, so both see one page
  const pid_t extension = getpid();
  const pid_t child = fork();
  if (child < 0) {
    LOG_ERROR("Stall watchdog not started (fork: %{public}s); a stalled extension would stall "
              "every exec.",
              strerror(errno));
    return -1;
  }
  if (child == 0) watch(extension);
  gWatchdog = child;
  return child;
}

pid_t stallWatchdogPid() { return gWatchdog; }

}  // namespace tarvex::itx::rtn::linux_platform
