#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "dispatch/wakebatch.h"
#include "rtn/dispatch.h"

namespace tarvex::itx::rtn::linux_platform {

// How a pool brings in workers. With a stall time and a way to look again
// later (`arm` runs a check after a delay, off the pool's threads), a
// worker that is busy but took a task within the stall time keeps the
// queue to itself: short tasks are drained by one thread rather than waking
// one thread each. More come in once the workers seem stuck (no task taken
// for that long, as the armed check finds) or `backlog` tasks wait. A
// check is cancelled once the queue is drained.
// Without, every waiting task brings a worker.
struct Recruiting {
  std::chrono::microseconds stall{0};
  size_t backlog = 0;
  std::function<TimerRef(std::chrono::microseconds delay, Task check)> arm;
};

// The threads behind one queue. Starts with none; while tasks wait and no
// worker is free for them, it adds threads up to maxThreads, and a worker
// left without work for idleTimeout exits. Pools never share threads, so a
// pool whose workers are all stuck cannot hold up another pool.
//
// With batchWakes, a worker runs its tasks under a WakeBatch until it runs
// out of work (or kTasksPerBatch): what they post to other queues and links
// wakes those once for the run. Only for tasks that never wait on what they
// post.
class WorkerPool : public Wakeable, public std::enable_shared_from_this<WorkerPool> {
 public:
  static constexpr unsigned kTasksPerBatch = 64;

  WorkerPool(std::string name, unsigned maxThreads, std::chrono::milliseconds idleTimeout,
             std::chrono::microseconds spin = std::chrono::microseconds(0),
             Recruiting recruiting = {}, QosClass qos = QosClass::Default,
             bool batchWakes = false);
  ~WorkerPool();
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  void post(Task task);
  // Brings a worker to tasks queued under a WakeBatch or CallerHelps.
  void wakeForQueued() override;

  // The calling thread runs what is queued, as a worker: should a task
  // hold it, the stall check brings a worker for the rest. For CallerHelps.
  void runQueuedHere();

  // The owning queue is gone: tasks already queued still run, then the
  // workers exit without waiting out the idle time-out.
  void release();

  // Stops for good: drops queued tasks, waits for running ones to return and
  // joins every worker. Later posts are dropped. Must not run on a worker.
  void shutdown();

  // Joins exited workers; true once released and no worker is left.
  bool reap();

  unsigned liveThreads();

 private:
  // An idle worker's own wake-up. The worker idle for the shortest time is
  // woken first: under a trickle of tasks the same one takes them all and
  // the others time out, where waking them in turn would keep every thread
  // of a past burst alive. Shared, so that a waker may notify after it lets
  // go of the lock.
  struct Sleeper {
    std::condition_variable cv;
    bool woken = false;
  };
  using SleeperRef = std::shared_ptr<Sleeper>;

  // The waiter to wake, if any; *arm when a stall check must be armed.
  SleeperRef recruitLocked(std::chrono::steady_clock::time_point now, bool* arm);
  SleeperRef bringWorkerLocked();
  static void wake(const SleeperRef& sleeper) {
    if (sleeper) sleeper->cv.notify_one();
  }
  // For release and shutdown: every waiter looks at the pool again.
  void wakeAllLocked();
  void armStallCheck();
  void stallCheck();
  // The armed check, once the queue is empty; null otherwise.
  TimerRef disarmLocked();
  void spawnLocked();
  void workerMain();
  // Runs the next task without the lock, bringing help for those behind it.
  void runNextLocked(std::unique_lock<std::mutex>& lock);
  // Keeps the mean gap between posts, for spinLengthLocked().
  void notePostLocked(std::chrono::steady_clock::time_point now);
  // How long an idle worker looks for work before it sleeps: up to spin_.
  std::chrono::nanoseconds spinLengthLocked() const;
  // Looks for work without the lock for up to spin; true if some came.
  bool spinForWork(std::unique_lock<std::mutex>& lock, std::chrono::nanoseconds spin);
  void retireLocked();
  static void joinAll(std::list<std::thread>& threads);

  const std::string name_;
  const unsigned maxThreads_;
  const std::chrono::milliseconds idleTimeout_;
  const std::chrono::microseconds spin_;
  const Recruiting recruiting_;
  const QosClass qos_;
  const bool batchWakes_;

  std::mutex mutex_;
  std::deque<Task> tasks_;
  std::list<std::thread> workers_;
  std::list<std::thread> exited_;  // returned from workerMain, not joined yet
  unsigned live_ = 0;
  // Waiting workers nobody has woken yet, the most recent last; waking one
  // takes it off and counts it in wakeups_ until it runs.
  std::vector<SleeperRef> sleepers_;
  unsigned wakeups_ = 0;
  unsigned starting_ = 0;  // spawned, not yet at the queue
  unsigned spinning_ = 0;  // looking for work without the lock
  unsigned busy_ = 0;      // running a task
  std::chrono::steady_clock::time_point lastTaken_;
  std::chrono::steady_clock::time_point lastPosted_;
  std::chrono::nanoseconds meanGap_;  // between posts
  bool checkArmed_ = false;
  TimerRef check_;  // the armed check, when arm() has returned it
  std::atomic<size_t> queued_{0};  // tasks_.size(), for spinners
  bool released_ = false;
  bool stopping_ = false;
};

}  // namespace tarvex::itx::rtn::linux_platform
