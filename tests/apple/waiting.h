#pragma once

#include <dispatch/dispatch.h>

#include <cstdint>

namespace lumo::apple_testing {

// Counts signals from other threads; wait() takes one, or gives up.
class Signal {
 public:
  void notify() { dispatch_semaphore_signal(semaphore_); }
  bool wait(int64_t seconds = 10) {
    return dispatch_semaphore_wait(semaphore_,
                                   dispatch_time(DISPATCH_TIME_NOW, seconds * NSEC_PER_SEC)) == 0;
  }

 private:
  dispatch_semaphore_t semaphore_ = dispatch_semaphore_create(0);
};

}  // namespace lumo::apple_testing
