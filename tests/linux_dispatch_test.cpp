// The Linux dispatch: concurrent queues on pools of their own (a blocked
// one runs its tasks side by side and holds up nobody else), timers on
// absolute time, queue and dispatch lifetimes, and how workers come to short
// work (a batch posted under a WakeBatch wakes once; a worker stuck in a
// task still gets help without any further post; a notification queue's
// run of tasks wakes what they post once), a caller that runs what it posts
// itself, and threads that take turns at a loop.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "clock/monotonicclock.h"
#include "dispatch/callerhelps.h"
#include "dispatch/linuxdispatch.h"
#include "dispatch/looprelay.h"
#include "dispatch/wakebatch.h"
#include "dispatch/workerpool.h"

namespace tarvex::itx::rtn::linux_platform {
namespace {

using namespace std::chrono_literals;

// Only reached when something is broken; passing runs never wait this long.
constexpr auto kPatience = 10s;
constexpr uint64_t kMillis = 1000000;

// Counts events and the threads they came from; the test waits for a number
// of them. A tally that tasks wait to reach one is a gate the test opens
// with add().
class Tally {
 public:
  void add() {
    std::lock_guard lock(mutex_);
    ++count_;
    threads_.insert(std::this_thread::get_id());
    changed_.notify_all();
  }
  bool waitFor(int n) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kPatience, [&] { return count_ >= n; });
  }
  int count() {
    std::lock_guard lock(mutex_);
    return count_;
  }
  size_t threads() {
    std::lock_guard lock(mutex_);
    return threads_.size();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int count_ = 0;
  std::set<std::thread::id> threads_;
};

DispatchLimits threadsEach(unsigned threads) {
  DispatchLimits limits;
  limits.interactiveThreads = threads;
  limits.otherThreads = threads;
  return limits;
}

// State the tasks touch is declared before the dispatch, which joins them.

TEST(LinuxDispatch, BlockedQueueDelaysNeitherOtherQueuesNorTimers) {
  Tally gate;
  Tally started;
  Tally released;
  Tally ran;
  MonotonicClock clock;
  LinuxDispatch dispatch(clock, threadsEach(2));
  QueueRef stuck = dispatch.createConcurrentQueue("t.stuck", QosClass::UserInteractive);
  QueueRef free = dispatch.createConcurrentQueue("t.free", QosClass::UserInteractive);

  constexpr int kBlocked = 5;  // more than the stuck queue has threads
  for (int i = 0; i < kBlocked; ++i) {
    stuck->async([&] {
      started.add();
      gate.waitFor(1);
      released.add();
    });
  }
  ASSERT_TRUE(started.waitFor(2));
  // A timer aimed at the stuck queue must not hold up the timers behind it.
  dispatch.after(clock.now(), stuck, [&] { released.add(); });
  free->async([&] { ran.add(); });
  dispatch.globalQueue(QosClass::UserInteractive)->async([&] { ran.add(); });
  dispatch.after(clock.now() + kMillis, free, [&] { ran.add(); });
  dispatch.after(clock.now(), dispatch.globalQueue(QosClass::Background), [&] { ran.add(); });
  EXPECT_TRUE(ran.waitFor(4));
  EXPECT_EQ(started.count(), 2);
  gate.add();
  EXPECT_TRUE(released.waitFor(kBlocked + 1));
}

TEST(LinuxDispatch, TimersFireInDeadlineOrderNeverEarlyAndNeverOnceCancelled) {
  std::mutex mutex;
  std::vector<int> order;
  Tally done;
  MonotonicClock clock;
  // One thread makes the queue run tasks in the order the timer posts them.
  LinuxDispatch dispatch(clock, threadsEach(1));
  QueueRef queue = dispatch.createConcurrentQueue("t.timers", QosClass::Default);
  // Deadlines start once all are set, so only the one in the past is due
  // meanwhile. {id, deadline}; ids are the expected firing order, negative
  // ones are cancelled (the earliest among them). Equal deadlines keep their
  // scheduling order.
  const uint64_t base = clock.now() + 100 * kMillis;
  const std::pair<int, uint64_t> timers[] = {
      {5, base + 40 * kMillis}, {-1, base}, {1, base + 10 * kMillis}, {4, base + 30 * kMillis},
      {0, 0}, {2, base + 20 * kMillis}, {-2, base + 25 * kMillis}, {3, base + 20 * kMillis},
  };
  std::vector<TimerRef> cancelled;
  TimerRef fired;
  for (const auto& [id, when] : timers) {
    TimerRef timer = dispatch.after(when, queue, [&, id = id, when = when] {
      EXPECT_GE(clock.now(), when) << "timer " << id << " fired early";
      std::lock_guard lock(mutex);
      order.push_back(id);
      done.add();
    });
    if (id < 0) cancelled.push_back(timer);
    if (id == 0) fired = timer;
  }
  for (const TimerRef& timer : cancelled) timer->cancel();
  ASSERT_TRUE(done.waitFor(6));
  fired->cancel();  // too late: harmless
  std::lock_guard lock(mutex);
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4, 5}));
}

TEST(LinuxDispatch, DroppedQueuesFinishTheirWorkADestroyedDispatchDropsIt) {
  Tally done;
  Tally gate;
  Tally started;
  std::atomic<bool> ran{false};
  MonotonicClock clock;
  auto dispatch = std::make_unique<LinuxDispatch>(clock, threadsEach(1));
  // Work queued behind a busy worker when the last handle goes.
  QueueRef queue = dispatch->createConcurrentQueue("t.dropped", QosClass::Default);
  queue->async([&] { gate.waitFor(1); });
  constexpr int kQueued = 100;
  for (int i = 0; i < kQueued; ++i) queue->async([&] { done.add(); });
  queue.reset();
  gate.add();
  // The last handle is released by the queue's own worker, after posting
  // more from inside the queue.
  QueueRef self = dispatch->createConcurrentQueue("t.self", QosClass::Default);
  self->async([&, keep = self] {
    done.add();
    keep->async([&] { done.add(); });
  });
  self.reset();
  // A timer keeps its queue alive until it has fired.
  QueueRef timed = dispatch->createConcurrentQueue("t.timed", QosClass::Default);
  dispatch->after(clock.now() + kMillis, timed, [&] { done.add(); });
  timed.reset();
  EXPECT_TRUE(done.waitFor(kQueued + 3));
  // New queues prune the finished pools; this must not disturb anything.
  dispatch->createConcurrentQueue("t.later", QosClass::Default)->async([&] { done.add(); });
  EXPECT_TRUE(done.waitFor(kQueued + 4));

  queue = dispatch->createConcurrentQueue("t.shutdown", QosClass::Default);
  queue->async([&] {
    started.add();
    gate.waitFor(2);
  });
  ASSERT_TRUE(started.waitFor(1));
  // The only worker is blocked until this queued task is thrown away, so it
  // cannot run, and discarding it is what lets the destructor's join finish.
  std::shared_ptr<void> opensOnDrop(nullptr, [&](void*) { gate.add(); });
  queue->async([&ran, drop = std::move(opensOnDrop)] { ran = true; });
  auto captured = std::make_shared<int>(0);
  std::weak_ptr<int> capture = captured;
  dispatch->after(clock.now() + 3600 * 1000 * kMillis, queue,
                  [&ran, c = std::move(captured)] { ran = true; });
  dispatch.reset();
  EXPECT_FALSE(ran.load());
  EXPECT_TRUE(capture.expired());
  // A handle that outlives the dispatch drops what it is given.
  captured = std::make_shared<int>(0);
  capture = captured;
  queue->async([&ran, c = std::move(captured)] { ran = true; });
  EXPECT_TRUE(capture.expired());
  EXPECT_FALSE(ran.load());
}

// Idle workers exit, even while a trickle of tasks goes on after a burst,
// and new work brings one back (how many may run at once is the blocked
// queue's test); a released pool is reaped once its last worker is gone.
TEST(LinuxWorkerPool, IdleWorkersExitAndComeBackAndAReleasedPoolIsReaped) {
  Tally done;
  Tally started;
  Tally gate;
  WorkerPool pool("t.pool", 3, 40ms);
  for (int i = 0; i < 3; ++i) {
    pool.post([&] {
      started.add();
      gate.waitFor(1);
    });
  }
  ASSERT_TRUE(started.waitFor(3));
  gate.add();
  // A task every 8 ms: workers woken in turn would each be woken well
  // within their 40 ms and none would exit.
  auto deadline = std::chrono::steady_clock::now() + kPatience;
  int trickled = 0;
  while (pool.liveThreads() > 1 && std::chrono::steady_clock::now() < deadline) {
    pool.post([&] { done.add(); });
    ++trickled;
    std::this_thread::sleep_for(8ms);
  }
  EXPECT_EQ(pool.liveThreads(), 1u);
  ASSERT_TRUE(done.waitFor(trickled));
  pool.post([&] { done.add(); });
  ASSERT_TRUE(done.waitFor(trickled + 1));
  deadline = std::chrono::steady_clock::now() + kPatience;
  while (pool.liveThreads() > 0 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(5ms);
  }
  EXPECT_EQ(pool.liveThreads(), 0u);
  pool.post([&] { done.add(); });
  EXPECT_TRUE(done.waitFor(trickled + 2));

  pool.release();
  while (!pool.reap() && std::chrono::steady_clock::now() < deadline + kPatience) {
    std::this_thread::sleep_for(1ms);
  }
  EXPECT_TRUE(pool.reap());
}

TEST(LinuxWakeBatch, ABatchWakesOnceOneWorkerDrainsItAndAStuckOneGetsHelp) {
  Tally runs;
  Tally gate;
  MonotonicClock clock;
  LinuxDispatch dispatch(clock);
  QueueRef queue = dispatch.createConcurrentQueue("t.batch", QosClass::Default);
  constexpr int kTasks = 50;
  {
    WakeBatch outer;
    {
      WakeBatch inner;  // nested: only the outermost one wakes
      for (int i = 0; i < kTasks / 2; ++i) queue->async([&] { runs.add(); });
    }
    for (int i = 0; i < kTasks / 2; ++i) queue->async([&] { runs.add(); });
    // Nobody was woken or started for them yet.
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(runs.count(), 0);
  }
  ASSERT_TRUE(runs.waitFor(kTasks));
  // One worker, or two if the first was held off the CPU past the stall time.
  EXPECT_LE(runs.threads(), 2u);

  // Queued together on a queue of its own, the second is left to the first
  // one's worker.
  QueueRef stuck = dispatch.createConcurrentQueue("t.stuck", QosClass::Default);
  {
    WakeBatch batch;
    stuck->async([&] { gate.waitFor(1); });
    stuck->async([&] { runs.add(); });
  }
  EXPECT_TRUE(runs.waitFor(kTasks + 1)) << "the task behind a stuck one never ran";
  gate.add();
}

// Stands in for a link: counts the wake-ups its producers leave to a batch
// and those they make at once.
class Consumer final : public Wakeable {
 public:
  void post() {
    if (!WakeBatch::defer(shared())) direct.add();
  }
  void wakeForQueued() override { deferred.add(); }
  std::shared_ptr<Consumer> shared() { return self.lock(); }

  std::weak_ptr<Consumer> self;
  Tally direct;
  Tally deferred;
};

std::shared_ptr<Consumer> makeConsumer() {
  auto consumer = std::make_shared<Consumer>();
  consumer->self = consumer;
  return consumer;
}

TEST(LinuxWakeBatch, ANotifyQueuesRunWakesWhatItPostsOnceAndGlobalQueuesDoNot) {
  auto consumer = makeConsumer();
  auto unbatched = makeConsumer();
  Tally runs;
  MonotonicClock clock;
  LinuxDispatch dispatch(clock);
  QueueRef notify = dispatch.createConcurrentQueue("t.notify", QosClass::Default);
  QueueRef global = dispatch.globalQueue(QosClass::Default);
  constexpr int kRun = 10;
  constexpr int kLong = 3 * WorkerPool::kTasksPerBatch;
  {
    WakeBatch batch;  // queued together: one worker's run
    for (int i = 0; i < kRun; ++i) notify->async([&] { consumer->post(); runs.add(); });
  }
  ASSERT_TRUE(runs.waitFor(kRun));
  ASSERT_TRUE(consumer->deferred.waitFor(1));
  EXPECT_EQ(consumer->direct.count(), 0);
  // The wake-up came when the run ended, not per task (two runs if the
  // worker was held off the CPU past the stall time and another came).
  std::this_thread::sleep_for(20ms);
  EXPECT_LE(consumer->deferred.count(), 2);

  // A long run still wakes now and then.
  {
    WakeBatch batch;
    for (int i = 0; i < kLong; ++i) notify->async([&] { consumer->post(); runs.add(); });
  }
  ASSERT_TRUE(runs.waitFor(kRun + kLong));
  ASSERT_TRUE(consumer->deferred.waitFor(1 + kLong / (WorkerPool::kTasksPerBatch + 1)));

  for (int i = 0; i < kRun; ++i) global->async([&] { unbatched->post(); });
  ASSERT_TRUE(unbatched->direct.waitFor(kRun));
  EXPECT_EQ(unbatched->deferred.count(), 0);
}

TEST(LinuxCallerHelps, TheCallerRunsItsInteractivePostsAndAStuckOneGetsHelp) {
  Tally interactiveRuns;
  Tally otherRuns;
  Tally gate;
  MonotonicClock clock;
  LinuxDispatch dispatch(clock);
  QueueRef interactive = dispatch.createConcurrentQueue("t.auth", QosClass::UserInteractive);
  QueueRef other = dispatch.createConcurrentQueue("t.other", QosClass::Default);
  std::thread::id firstRanOn;
  {
    CallerHelps helps;
    EXPECT_FALSE(helps.holding());
    interactive->async([&] {
      firstRanOn = std::this_thread::get_id();
      interactiveRuns.add();
    });
    for (int i = 0; i < 2; ++i) interactive->async([&] { interactiveRuns.add(); });
    // Others are not held back: the caller may wait on them.
    other->async([&] { otherRuns.add(); });
    EXPECT_TRUE(otherRuns.waitFor(1));
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(interactiveRuns.count(), 0);
    ASSERT_TRUE(helps.holding());
    // The first runs here; the rest too, unless the stall check finds this
    // thread slow and brings a worker.
    helps.help();
    EXPECT_EQ(firstRanOn, std::this_thread::get_id());
    EXPECT_TRUE(interactiveRuns.waitFor(3));
    // What a helped task posts is not held back for a help to come.
    interactive->async([&] {
      interactive->async([&] { gate.add(); });
      EXPECT_TRUE(gate.waitFor(1)) << "a helped task's own post was held back";
    });
    helps.help();
  }
  // A helper stuck in a task: a worker comes for the one behind it.
  std::thread helper([&] {
    CallerHelps helps;
    interactive->async([&] { gate.waitFor(2); });
    interactive->async([&] { interactiveRuns.add(); });
    helps.help();
  });
  EXPECT_TRUE(interactiveRuns.waitFor(4)) << "the task behind a stuck helper never ran";
  gate.add();
  helper.join();
  // Left without help, the scope wakes a worker at its end.
  { CallerHelps helps; interactive->async([&] { interactiveRuns.add(); }); }
  EXPECT_TRUE(interactiveRuns.waitFor(5));
}

TEST(LinuxLoopRelay, AHeldTurnIsTakenUpAfterThePatienceAndTheHeldThreadComesBackForALaterOne) {
  Tally turns;
  Tally gate;
  std::mutex mutex;
  std::vector<std::thread::id> takers;
  std::vector<bool> kept;
  std::atomic<bool> stop = false;
  MonotonicClock clock;
  LinuxDispatch dispatch(clock);
  QueueRef relief = dispatch.globalQueue(QosClass::UserInteractive);
  LoopRelay* relayOf = nullptr;
  auto keptCount = [&] {
    std::lock_guard lock(mutex);
    return kept.size();
  };
  auto loop = [&] {
    int turn;
    {
      std::lock_guard lock(mutex);
      takers.push_back(std::this_thread::get_id());
      turn = static_cast<int>(takers.size());
    }
    turns.add();
    if (turn <= 2) {
      if (turn == 2) {
        // Holds only once the first thread is back and waiting, so that it
        // is the one that takes the third turn.
        while (keptCount() == 0) std::this_thread::sleep_for(1ms);
        std::this_thread::sleep_for(50ms);
      }
      const bool stillMine = relayOf->stepAway([&] { gate.waitFor(turn); });
      std::lock_guard lock(mutex);
      kept.push_back(stillMine);
      return;
    }
    while (!stop) {
      EXPECT_TRUE(relayOf->stepAway([] {})) << "a quick step away lost the turn";
      std::this_thread::sleep_for(1ms);
    }
  };
  LoopRelay relay(
      loop,
      [&](std::chrono::microseconds delay, Task check) {
        const uint64_t when = clock.now() + clock.nanosToTicks(delay.count() * 1000);
        return dispatch.after(when, relief, std::move(check));
      },
      1ms, 4);
  relayOf = &relay;
  relay.start();
  ASSERT_TRUE(turns.waitFor(2)) << "nobody took the held loop up";
  gate.add();  // the first holder is back; the second turn then holds
  ASSERT_TRUE(turns.waitFor(3));
  gate.add();
  std::this_thread::sleep_for(10ms);
  stop = true;
  relay.stop();
  std::lock_guard lock(mutex);
  EXPECT_EQ(kept, (std::vector<bool>{false, false}));
  ASSERT_EQ(takers.size(), 3u);
  EXPECT_EQ(takers[2], takers[0]) << "a new thread came while one was waiting";
  EXPECT_EQ(relay.threads(), 0u);
}

}  // namespace
}  // namespace tarvex::itx::rtn::linux_platform
