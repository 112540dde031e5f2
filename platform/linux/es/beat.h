#pragma once

#include <time.h>

#include <chrono>

namespace endpointsecurity::linux_es {

// The notification sources read on one beat of the monotonic clock. Woken
// together, their batches reach the notify queue in one worker's run and
// the daemon link in one write; each on a beat of its own would wake that
// chain once per source.
constexpr std::chrono::milliseconds kBeat{25};

// Time left until the next beat, for epoll_pwait2.
timespec untilNextBeat();
// Sleeps until the next beat.
void sleepUntilNextBeat();

}  // namespace endpointsecurity::linux_es
