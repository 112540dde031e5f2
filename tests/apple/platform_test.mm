// What the macOS platform hands the core: queues and timers over
// libdispatch on the clock message deadlines use, and the Endpoint Security
// facility.
#include "dispatch/appledispatch.h"

#include <dispatch/dispatch.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>

#include "clock/machclock.h"
#include "es/appleendpointsecurity.h"

using namespace std::chrono_literals;
using endpointsecurity::apple_platform::AppleEndpointSecurity;
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

// Deadline watchdogs are scheduled in clock units with dispatch_after: the
// two must be one time scale.
TEST_F(AppleDispatchTest, ClockIsDispatchTimeInTheSystemsTimebase) {
  mach_timebase_info_data_t info{};
  ASSERT_EQ(mach_timebase_info(&info), KERN_SUCCESS);
  EXPECT_EQ(clock.timebase().numer, info.numer);
  EXPECT_EQ(clock.timebase().denom, info.denom);
  const uint64_t before = clock.now();
  const dispatch_time_t now = dispatch_time(DISPATCH_TIME_NOW, 0);
  EXPECT_LE(before, now);
  EXPECT_LE(now, clock.now());
  const uint64_t second = 1'000'000'000;
  EXPECT_NEAR(static_cast<double>(clock.ticksToNanos(clock.nanosToTicks(second))),
              static_cast<double>(second), 1000.0);
}

TEST_F(AppleDispatchTest, ConcurrentQueueRunsTasksSideBySide) {
  const QueueRef queue =
      dispatch.createConcurrentQueue("com.tarvex.lumo.test-queue", QosClass::UserInteractive);
  ASSERT_TRUE(queue);
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

TEST_F(AppleDispatchTest, AfterRunsAtTheAbsoluteTimeOnTheGivenQueue) {
  const uint64_t when = clock.now() + clock.nanosToTicks(50'000'000);
  std::promise<uint64_t> ran;
  dispatch.after(when, dispatch.globalQueue(QosClass::Default),
                 [&] { ran.set_value(clock.now()); });
  auto at = ran.get_future();
  ASSERT_EQ(at.wait_for(10s), std::future_status::ready);
  EXPECT_GE(at.get(), when);

  // A past time runs at once; a queue of another kind is handed the task.
  auto queue = std::make_shared<InlineQueue>();
  std::promise<void> past;
  dispatch.after(0, queue, [&] { past.set_value(); });
  EXPECT_EQ(past.get_future().wait_for(2s), std::future_status::ready);
  EXPECT_EQ(queue->posted.load(), 1);

  // A time no uptime reaches: neither was parked with the system, nothing
  // holds the closures.
  auto token = std::make_shared<int>(0);
  const std::weak_ptr<int> watch = token;
  for (uint64_t never : {kLatestDispatchTime + 1, UINT64_MAX}) {
    dispatch.after(never, dispatch.globalQueue(QosClass::Default),
                   [token] { ADD_FAILURE() << "ran"; });
  }
  token.reset();
  EXPECT_TRUE(watch.expired());
}

// The test executable carries no Endpoint Security entitlement: the
// facility itself must answer, and refuse.
TEST(AppleEndpointSecurity, AnUnentitledProcessIsRefused) {
  AppleEndpointSecurity es;
  es.releaseMutedProcesses(nullptr, 0);  // nothing to release is safe
  es_client_t* client = nullptr;
  const es_new_client_result_t result =
      es.newClient(&client, [](es_client_t*, const es_message_t*) {});
  if (result == ES_NEW_CLIENT_RESULT_SUCCESS) {
    es.deleteClient(client);
    GTEST_SKIP() << "this test executable is entitled";
  }
  EXPECT_EQ(client, nullptr);
  EXPECT_TRUE(result == ES_NEW_CLIENT_RESULT_ERR_NOT_ENTITLED ||
              result == ES_NEW_CLIENT_RESULT_ERR_NOT_PRIVILEGED ||
              result == ES_NEW_CLIENT_RESULT_ERR_NOT_PERMITTED)
      << "result " << result;
}
