// How the Linux dispatch brings workers to short work: a batch posted under
// a WakeBatch wakes once, one worker drains a burst of short tasks, and a
// worker stuck in a task still gets help without any further post.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>
#include <thread>

#include "clock/monotonicclock.h"
#include "dispatch/linuxdispatch.h"
#include "dispatch/wakebatch.h"

namespace tarvex::itx::rtn::linux_platform {
namespace {

using namespace std::chrono_literals;

class Runs {
 public:
  void add() {
    std::lock_guard lock(mutex_);
    threads_.insert(std::this_thread::get_id());
    ++count_;
    changed_.notify_all();
  }
  bool waitFor(int n) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, 10s, [&] { return count_ >= n; });
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

TEST(LinuxWakeBatch, ABatchWakesOnceAndOneWorkerDrainsIt) {
  Runs runs;
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
}

TEST(LinuxWakeBatch, AStuckWorkerGetsHelpWithoutAnotherPost) {
  std::mutex mutex;
  std::condition_variable changed;
  bool started = false;
  bool release = false;
  Runs runs;
  MonotonicClock clock;
  LinuxDispatch dispatch(clock);
  QueueRef queue = dispatch.createConcurrentQueue("t.stuck", QosClass::Default);
  {
    // Queued together, so the second is left to the first one's worker.
    WakeBatch batch;
    queue->async([&] {
      std::unique_lock lock(mutex);
      started = true;
      changed.notify_all();
      changed.wait_for(lock, 10s, [&] { return release; });
    });
    queue->async([&] { runs.add(); });
  }
  EXPECT_TRUE(runs.waitFor(1)) << "the task behind a stuck one never ran";
  std::lock_guard lock(mutex);
  EXPECT_TRUE(started);
  release = true;
  changed.notify_all();
}

}  // namespace
}  // namespace tarvex::itx::rtn::linux_platform
