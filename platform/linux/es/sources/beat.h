#pragma once

#include <sys/epoll.h>
#include <time.h>

#include <chrono>

namespace endpointsecurity::linux_es {

// The notification sources read on one beat of the monotonic clock. Woken
// together, their batches reach the notify queue in one worker's run and
// the daemon link in one write; each on a beat of its own would wake that
// chain once per source.
constexpr std::chrono::milliseconds kBeat{25};

// A file group in a storm is read on a fifth of the beat: the kernel compares
// every new file event with those queued, so a long queue makes each file
// operation on the machine pay for the walk. Its reads still fall on the
// others' beat every fifth time.
constexpr std::chrono::milliseconds kFileBeat{5};

// Sleeps until the next beat, or the next multiple of a shorter one.
void sleepUntilNextBeat(std::chrono::nanoseconds beat = kBeat);
// Waits on an epoll set until the next beat or until it has something, as
// epoll_wait does (kernels before 5.11 get the beat to the millisecond).
int epollUntilNextBeat(int epollFd, epoll_event* ready);

}  // namespace endpointsecurity::linux_es
