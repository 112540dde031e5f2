#include "rtn/thread.h"

#include <time.h>

namespace tarvex::itx::rtn {

int thread_cond_t::timed_wait(thread_mutex_t& mutex, unsigned int ms) {
  if (ms == kInfinite) {
    pthread_cond_wait(&cond_, mutex.native());
    return 0;
  }
  constexpr long kNanosPerSecond = 1000000000L;
  timespec until{};
  clock_gettime(CLOCK_REALTIME, &until);
  if (until.tv_nsec >= kNanosPerSecond) {
    until.tv_sec += until.tv_nsec / kNanosPerSecond;
    until.tv_nsec %= kNanosPerSecond;
  }
  until.tv_sec += ms / 1000;
  until.tv_nsec += static_cast<long>(ms % 1000) * 1000000L;
  if (until.tv_nsec >= kNanosPerSecond) {
    until.tv_sec += 1;
    until.tv_nsec -= kNanosPerSecond;
  }
  return pthread_cond_timedwait(&cond_, mutex.native(), &until);
}

}  // namespace tarvex::itx::rtn
