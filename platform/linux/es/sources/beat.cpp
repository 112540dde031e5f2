#include "es/sources/beat.h"

#include <atomic>
#include <cerrno>
#include <cstdint>

namespace endpointsecurity::linux_es {

namespace {

constexpr int64_t kBeatNanos = std::chrono::nanoseconds(kBeat).count();
constexpr int64_t kNanosPerSecond = 1'000'000'000;

int64_t nowNanos() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * kNanosPerSecond + now.tv_nsec;
}

int64_t nextBeat(int64_t now, int64_t beat = kBeatNanos) { return (now / beat + 1) * beat; }

timespec timespecOf(int64_t nanos) {
  return timespec{static_cast<time_t>(nanos / kNanosPerSecond),
                  static_cast<long>(nanos % kNanosPerSecond)};
}

}  // namespace

int epollUntilNextBeat(int epollFd, epoll_event* ready) {
  static std::atomic<bool> noPwait2{false};
  const int64_t now = nowNanos();
  const int64_t left = nextBeat(now) - now;
  if (!noPwait2.load(std::memory_order_relaxed)) {
    const timespec timeout = timespecOf(left);
    const int n = epoll_pwait2(epollFd, ready, 1, &timeout, nullptr);
    if (n >= 0 || errno != ENOSYS) return n;
    noPwait2.store(true, std::memory_order_relaxed);
  }
  return epoll_wait(epollFd, ready, 1, static_cast<int>((left + 999'999) / 1'000'000));
}

void sleepUntilNextBeat(std::chrono::nanoseconds beat) {
  const timespec at = timespecOf(nextBeat(nowNanos(), beat.count()));
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &at, nullptr) == EINTR) {
  }
}

}  // namespace endpointsecurity::linux_es
