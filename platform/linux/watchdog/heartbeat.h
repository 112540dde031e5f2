#pragma once

#include <atomic>
#include <cstdint>

namespace tarvex::itx::rtn::linux_platform {

// What the permission path shows of its progress, on a page shared with the
// stall watchdog: a process of its own, so that it can still act while this
// one is stopped, deadlocked or spinning. Times are CLOCK_MONOTONIC
// nanoseconds.
struct HeartbeatPage {
  // The permission reader: counted at every wake of its loop (it wakes at
  // least every 200 ms) and for every event it handles.
  std::atomic<uint64_t> readerBeats{0};
  // The permission group's descriptor in the extension, -1 while none is
  // open; and a count of the groups opened, so a release acts on the one
  // that stalled.
  std::atomic<int> groupFd{-1};
  std::atomic<uint64_t> groupGeneration{0};
  // The timer thread: when its earliest timer is due, 0 when none is set.
  std::atomic<uint64_t> timerDue{0};

  // Written by the watchdog when it released a stalled permission path;
  // read by the extension once it runs again.
  std::atomic<uint64_t> releases{0};
  std::atomic<uint64_t> stalledSince{0};
  std::atomic<uint64_t> allowedUnseen{0};  // queued, never read by the extension
  std::atomic<uint64_t> allowedPending{0};  // read and delivered, not yet answered
  // Written by the watchdog: the path has made progress again since the
  // last release.
  std::atomic<uint64_t> recoveries{0};
  std::atomic<uint64_t> recoveredAt{0};
};

// The process's page: shared with the watchdog once it runs
// (startStallWatchdog), private until then.
HeartbeatPage& heartbeat();
// The page's time base: the timer thread's clock.
uint64_t monotonicNanos();

// A timer more than this late means the timer thread is stuck: the AUTH
// fail-safe rides on it.
constexpr uint64_t kTimerLateNanos = 1'000'000'000;
// A reader that has not beaten for this long is stuck: it wakes at least
// every 200 ms.
constexpr uint64_t kReaderSilentNanos = 1'500'000'000;

// For a service manager's watchdog: called from one thread at a steady
// pace, true while the permission reader has beaten since the last call (or
// no permission group is open) and no timer is overdue.
class ProgressCheck {
 public:
  bool progressing();

 private:
  uint64_t lastBeats_ = 0;
};

}  // namespace tarvex::itx::rtn::linux_platform
