#include "dispatch/appledispatch.h"

#include <dispatch/dispatch.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <string>

#include "clock/machclock.h"

using namespace std::chrono_literals;
using tarvex::itx::rtn::IQueue;
using tarvex::itx::rtn::QosClass;
using tarvex::itx::rtn::QueueRef;
using tarvex::itx::rtn::Task;
using tarvex::itx::rtn::apple_platform::AppleDispatch;
using tarvex::itx::rtn::apple_platform::kLatestDispatchTime;
using tarvex::itx::rtn::apple_platform::MachClock;

namespace {

class AppleDispatchTest : public ::testing::Test {
 protected:
  MachClock clock;
  AppleDispatch dispatch;
};

// Runs what it is given at once and counts it.
class InlineQueue : public IQueue {
 public:
  void async(Task task) override {
    ++posted;
    task();
  }
  const char* label() const override { return "inline"; }
  std::atomic<int> posted{0};
};

}  // namespace

TEST_F(AppleDispatchTest, ConcurrentQueueKeepsItsLabel) {
  const QueueRef queue =
      dispatch.createConcurrentQueue("com.tarvex.lumo.test-queue", QosClass::UserInteractive);
  ASSERT_TRUE(queue);
  EXPECT_STREQ(queue->label(), "com.tarvex.lumo.test-queue");
  std::promise<std::string> seen;
  queue->async([&] { seen.set_value(dispatch_queue_get_label(DISPATCH_CURRENT_QUEUE_LABEL)); });
  EXPECT_EQ(seen.get_future().get(), "com.tarvex.lumo.test-queue");
}

TEST_F(AppleDispatchTest, ConcurrentQueueRunsTasksSideBySide) {
  const QueueRef queue =
      dispatch.createConcurrentQueue("com.tarvex.lumo.test-side", QosClass::Default);
  std::promise<void> firstRunning;
  std::promise<void> secondRan;
  std::promise<bool> firstSawSecond;
  queue->async([&] {
    firstRunning.set_value();
    firstSawSecond.set_value(secondRan.get_future().wait_for(10s) == std::future_status::ready);
  });
  firstRunning.get_future().wait();
  // The first task is still running and waits for this one.
  queue->async([&] { secondRan.set_value(); });
  EXPECT_TRUE(firstSawSecond.get_future().get());
}

TEST_F(AppleDispatchTest, GlobalQueuesAreTheSystemsByClass) {
  EXPECT_STREQ(
      dispatch.globalQueue(tarvex::itx::rtn::kPriorityHigh)->label(),
      dispatch_queue_get_label(dispatch_get_global_queue(DISPATCH_QUEUE_PRIORITY_HIGH, 0)));
  EXPECT_STREQ(
      dispatch.globalQueue(tarvex::itx::rtn::kPriorityDefault)->label(),
      dispatch_queue_get_label(dispatch_get_global_queue(DISPATCH_QUEUE_PRIORITY_DEFAULT, 0)));
  EXPECT_STREQ(dispatch.globalQueue(QosClass::UserInteractive)->label(),
               dispatch_queue_get_label(dispatch_get_global_queue(QOS_CLASS_USER_INTERACTIVE, 0)));
}

TEST_F(AppleDispatchTest, AfterWaitsForTheAbsoluteTime) {
  const uint64_t when = clock.now() + clock.nanosToTicks(50'000'000);
  std::promise<uint64_t> ran;
  dispatch.after(when, dispatch.globalQueue(QosClass::Default),
                 [&] { ran.set_value(clock.now()); });
  auto at = ran.get_future();
  ASSERT_EQ(at.wait_for(10s), std::future_status::ready);
  EXPECT_GE(at.get(), when);
}

TEST_F(AppleDispatchTest, AfterAPastTimeRunsAtOnce) {
  std::promise<void> ran;
  dispatch.after(0, dispatch.createConcurrentQueue("com.tarvex.lumo.test-past", QosClass::Default),
                 [&] { ran.set_value(); });
  EXPECT_EQ(ran.get_future().wait_for(2s), std::future_status::ready);
}

TEST_F(AppleDispatchTest, AfterATimeNoUptimeReachesDropsTheTask) {
  auto token = std::make_shared<int>(0);
  const std::weak_ptr<int> watch = token;
  dispatch.after(kLatestDispatchTime + 1, dispatch.globalQueue(QosClass::Default),
                 [token] { ADD_FAILURE() << "ran"; });
  dispatch.after(UINT64_MAX, dispatch.globalQueue(QosClass::Default),
                 [token] { ADD_FAILURE() << "ran"; });
  token.reset();
  // Neither was parked with the system: nothing holds the closures.
  EXPECT_TRUE(watch.expired());
}

TEST_F(AppleDispatchTest, AfterHandsTasksForAnotherQueueToIt) {
  auto queue = std::make_shared<InlineQueue>();
  std::promise<void> ran;
  dispatch.after(clock.now(), queue, [&] { ran.set_value(); });
  ASSERT_EQ(ran.get_future().wait_for(10s), std::future_status::ready);
  EXPECT_EQ(queue->posted.load(), 1);
}
