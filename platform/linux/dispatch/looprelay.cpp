#include "dispatch/looprelay.h"

#include <algorithm>
#include <condition_variable>
#include <list>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

namespace tarvex::itx::rtn::linux_platform {

struct LoopRelay::State : std::enable_shared_from_this<State> {
  State(std::function<void()> l, Arm a, std::chrono::microseconds p, unsigned max)
      : loop(std::move(l)), arm(std::move(a)), patience(p), maxThreads(std::max(max, 1u)) {}

  // Under mutex. Out of threads, the loop stays vacant until the thread
  // that stepped away comes back for it.
  void spawnLocked() {
    try {
      threads.emplace_back([self = shared_from_this()] { self->threadMain(); });
    } catch (const std::system_error&) {
    }
  }

  void threadMain() {
    std::unique_lock lock(mutex);
    for (;;) {
      ++waiting;
      changed.wait(lock, [&] { return stopping || vacant; });
      --waiting;
      if (stopping) return;
      vacant = false;
      ++turn;
      lock.unlock();
      loop();
      lock.lock();
    }
  }

  void takeOver(uint64_t from) {
    std::lock_guard lock(mutex);
    if (stopping || away != from) return;
    away = 0;
    vacant = true;
    if (waiting == 0 && threads.size() < maxThreads) spawnLocked();
    changed.notify_one();
  }

  const std::function<void()> loop;
  const Arm arm;
  const std::chrono::microseconds patience;
  const unsigned maxThreads;

  mutable std::mutex mutex;
  std::condition_variable changed;
  std::list<std::thread> threads;
  unsigned waiting = 0;  // threads waiting for a turn
  bool vacant = false;   // the loop wants a thread
  bool stopping = false;
  uint64_t turn = 0;  // counts the turns taken
  uint64_t away = 0;  // the turn whose thread stepped away, 0 if none
};

LoopRelay::LoopRelay(std::function<void()> loop, Arm arm, std::chrono::microseconds patience,
                     unsigned maxThreads)
    : state_(std::make_shared<State>(std::move(loop), std::move(arm), patience, maxThreads)) {}

LoopRelay::~LoopRelay() { stop(); }

void LoopRelay::start() {
  std::lock_guard lock(state_->mutex);
  state_->stopping = false;
  state_->vacant = true;
  if (state_->threads.empty()) state_->spawnLocked();
  state_->changed.notify_one();
}

void LoopRelay::stop() {
  std::list<std::thread> threads;
  {
    std::lock_guard lock(state_->mutex);
    state_->stopping = true;
    state_->vacant = false;
    state_->away = 0;
    threads.swap(state_->threads);
    state_->changed.notify_all();
  }
  for (std::thread& thread : threads) {
    if (thread.joinable()) thread.join();
  }
}

bool LoopRelay::stepAway(const std::function<void()>& work) {
  State& state = *state_;
  uint64_t mine;
  {
    std::lock_guard lock(state.mutex);
    mine = state.turn;
    state.away = mine;
  }
  TimerRef check = state.arm(state.patience, [weak = std::weak_ptr<State>(state_), mine] {
    if (auto self = weak.lock()) self->takeOver(mine);
  });
  work();
  if (check) check->cancel();
  std::lock_guard lock(state.mutex);
  if (state.away != mine) return false;
  state.away = 0;
  return true;
}

unsigned LoopRelay::threads() const {
  std::lock_guard lock(state_->mutex);
  return static_cast<unsigned>(state_->threads.size());
}

}  // namespace tarvex::itx::rtn::linux_platform
