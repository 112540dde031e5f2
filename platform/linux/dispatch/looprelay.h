#pragma once

#include <chrono>
#include <functional>
#include <memory>

#include "rtn/dispatch.h"

namespace tarvex::itx::rtn::linux_platform {

// Threads that take turns at one loop, one at a time. The thread at the
// loop may step away from it to run work that could hold it (stepAway):
// should the work outlast the patience, another thread takes the loop up,
// and the one that stepped away waits for a later turn once its work is
// done. So a loop may run what it hands out itself, which costs no
// wake-up, and still never stands still for longer than the patience.
//
// The loop keeps its state where every turn finds it; whoever is at the
// loop is the only one touching it. It returns when its owner tells it to
// stop, or when stepAway says it was taken up meanwhile.
class LoopRelay {
 public:
  // Runs check once delay has passed, off the relay's threads.
  using Arm = std::function<TimerRef(std::chrono::microseconds delay, Task check)>;

  LoopRelay(std::function<void()> loop, Arm arm, std::chrono::microseconds patience,
            unsigned maxThreads);
  ~LoopRelay();
  LoopRelay(const LoopRelay&) = delete;
  LoopRelay& operator=(const LoopRelay&) = delete;

  // A first thread takes the loop up.
  void start();

  // Joins every thread: the owner has told the loop to stop, and work run
  // by stepAway has to return. Not from the loop.
  void stop();

  // From the loop: runs work; false when another thread took the loop up
  // meanwhile, and the caller's turn is over.
  bool stepAway(const std::function<void()>& work);

  unsigned threads() const;

 private:
  struct State;
  const std::shared_ptr<State> state_;
};

}  // namespace tarvex::itx::rtn::linux_platform
