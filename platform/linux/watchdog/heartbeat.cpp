#include "watchdog/heartbeat.h"

#include <sys/mman.h>

#include <new>

#include "clock/monotonicclock.h"

namespace tarvex::itx::rtn::linux_platform {

HeartbeatPage& heartbeat() {
  // Mapped shared before anything runs, so that a watchdog forked later
  // sees the same page; never unmapped.
  static HeartbeatPage* const page = [] {
    void* memory = mmap(nullptr, sizeof(HeartbeatPage), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) return new HeartbeatPage;
    return new (memory) HeartbeatPage;
  }();
  return *page;
}

uint64_t monotonicNanos() { return MonotonicClock().now(); }

bool ProgressCheck::progressing() {
  HeartbeatPage& page = heartbeat();
  const uint64_t beats = page.readerBeats.load(std::memory_order_relaxed);
  const bool readerOk = page.groupFd.load() < 0 || beats != lastBeats_;
  lastBeats_ = beats;
  const uint64_t due = page.timerDue.load(std::memory_order_relaxed);
  const bool timerOk = due == 0 || monotonicNanos() < due + kTimerLateNanos;
  return readerOk && timerOk;
}

}  // namespace tarvex::itx::rtn::linux_platform
