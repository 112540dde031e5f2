#include "es/beat.h"

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

int64_t nextBeat(int64_t now) { return (now / kBeatNanos + 1) * kBeatNanos; }

timespec timespecOf(int64_t nanos) {
  return timespec{static_cast<time_t>(nanos / kNanosPerSecond),
                  static_cast<long>(nanos % kNanosPerSecond)};
}

}  // namespace

timespec untilNextBeat() {
  const int64_t now = nowNanos();
  return timespecOf(nextBeat(now) - now);
}

void sleepUntilNextBeat() {
  const timespec at = timespecOf(nextBeat(nowNanos()));
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &at, nullptr) == EINTR) {
  }
}

}  // namespace endpointsecurity::linux_es
