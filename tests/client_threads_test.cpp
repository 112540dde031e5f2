// The client on real queues and the real clock: what must hold whatever the
// threads do.
#include <gtest/gtest.h>

#include <thread>

#include "clock/monotonicclock.h"
#include "dispatch/linuxdispatch.h"
#include "esclient/client.h"
#include "rtn/platform.h"
#include "support/capture_sink.h"
#include "support/fake_daemon_link.h"
#include "support/fake_es.h"
#include "support/message_builder.h"
#include "support/recording_observer.h"

namespace {

using endpointsecurity::TagProcObserver;
using lumo::testing::MessageBuilder;
using lumo::testing::RecordingObserver;
using lumo::testing::TestMessage;
using tarvex::itx::rtn::linux_platform::LinuxDispatch;
using tarvex::itx::rtn::linux_platform::MonotonicClock;

class ClientOnThreads : public ::testing::Test {
 protected:
  ClientOnThreads() : dispatch(clock) {
    tarvex::itx::rtn::setPlatform({&es, &dispatch, &clock, nullptr});
  }
  ~ClientOnThreads() override { tarvex::itx::rtn::setPlatform({}); }

  std::unique_ptr<TestMessage> exec(uint64_t nanosLeft) {
    return MessageBuilder::auth(ES_EVENT_TYPE_AUTH_EXEC)
        .deadline(clock.now() + clock.nanosToTicks(nanosLeft))
        .build();
  }

  // Declared first so that it outlives every thread that may touch it.
  lumo::testing::FakeEndpointSecurity es;
  lumo::testing::CaptureSink sink{/*debug=*/false};
  lumo::testing::FakeDaemonLink link;
  MonotonicClock clock;
  LinuxDispatch dispatch;
};

TEST_F(ClientOnThreads, ObserverThatNeverReturnsDoesNotStopTheWatchdog) {
  RecordingObserver stuck("Stuck", {ES_EVENT_TYPE_AUTH_EXEC}, TagProcObserver);
  stuck.activate();
  stuck.block();
  {
    endpointsecurity::Client client;
    client.registerObserver(&stuck);
    ASSERT_TRUE(client.init());

    // More stuck messages than a machine has cores, so every auth worker
    // that exists is blocked.
    constexpr int kMessages = 12;
    std::vector<std::unique_ptr<TestMessage>> messages;
    for (int i = 0; i < kMessages; ++i) messages.push_back(exec(1'500'000'000));
    for (auto& m : messages) es.deliver(m->get());
    ASSERT_TRUE(stuck.waitBlocked(1));

    for (auto& m : messages) {
      ASSERT_TRUE(es.waitForAnswers(m->get(), 1));
      // Answered by the watchdog, before the facility's deadline.
      EXPECT_LT(clock.now(), m->get()->deadline);
      const auto answers = es.answers(m->get());
      EXPECT_EQ(answers[0].result, ES_AUTH_RESULT_ALLOW);
      EXPECT_FALSE(answers[0].cache);
    }
    stuck.release();
    ASSERT_TRUE(es.waitForReleased());
    // Each watchdog logs after answering, before it lets go of its message.
    EXPECT_EQ(sink.count("ATTENTION ! Auth deadline is reached"), static_cast<size_t>(kMessages));
    client.stop();
  }
}

TEST_F(ClientOnThreads, EveryAuthIsAnsweredAndNoMessageLeaksUnderLoad) {
  RecordingObserver procs("Procs", {ES_EVENT_TYPE_AUTH_EXEC, ES_EVENT_TYPE_NOTIFY_EXEC},
                          TagProcObserver);
  RecordingObserver denier("Denier", {ES_EVENT_TYPE_AUTH_OPEN}, TagProcObserver);
  denier.denyWith = &es;
  procs.activate();
  denier.activate();
  endpointsecurity::Client client;
  client.registerObserver(&procs);
  client.registerObserver(&denier);
  ASSERT_TRUE(client.init());

  constexpr int kPerThread = 400;
  std::vector<std::unique_ptr<TestMessage>> messages[2];
  for (auto& batch : messages) {
    for (int i = 0; i < kPerThread; ++i) {
      switch (i % 3) {
        case 0: batch.push_back(exec(60'000'000'000)); break;
        case 1:
          batch.push_back(MessageBuilder::auth(ES_EVENT_TYPE_AUTH_OPEN)
                              .deadline(clock.now() + clock.nanosToTicks(60'000'000'000))
                              .build());
          break;
        default: batch.push_back(MessageBuilder::notify(ES_EVENT_TYPE_NOTIFY_EXEC).build());
      }
    }
  }
  std::thread deliverers[2];
  for (int t = 0; t < 2; ++t) {
    deliverers[t] = std::thread([&, t] {
      for (auto& m : messages[t]) es.deliver(m->get());
    });
  }
  for (auto& d : deliverers) d.join();

  ASSERT_TRUE(es.waitForReleased());
  for (auto& batch : messages) {
    for (auto& m : batch) {
      const size_t expected = m->get()->action_type == ES_ACTION_TYPE_AUTH ? 1 : 0;
      EXPECT_EQ(es.answers(m->get()).size(), expected);
    }
  }
  EXPECT_EQ(procs.notified, 2 * (kPerThread / 3));
  client.stop();
}

}  // namespace
